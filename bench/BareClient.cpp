#include "bench/BareClient.h"

#include <grpcpp/create_channel.h>
#include <grpcpp/security/credentials.h>
#include <grpcpp/support/channel_arguments.h>

namespace bench {

using sonalith::grpc::Meters;
using sonalith::grpcengine::Engine;

std::shared_ptr<grpc::Channel> openChannel(const std::string& target) {
  grpc::ChannelArguments arguments;
  arguments.SetInt("grpc.keepalive_time_ms", 10000);
  arguments.SetInt("grpc.keepalive_timeout_ms", 10000);
  arguments.SetInt("grpc.keepalive_permit_without_calls", 1);
  return grpc::CreateCustomChannel(target, grpc::InsecureChannelCredentials(), arguments);
}

BareReader::BareReader(const std::string& target, bool withSlow, Handler handler, WokenBy wokenBy)
    : handler_(std::move(handler)), wokenBy_(wokenBy), hasSlow_(withSlow) {
  thread_ = std::thread(&BareReader::drain, this);
  stub_ = Meters::NewStub(openChannel(target));
  fast_.reader = stub_->PrepareAsyncGetMetersFast(&fast_.context, request_, &queue_);
  fast_.reader->StartCall(&fast_);
  if (!hasSlow_) return;
  slow_.reader = stub_->PrepareAsyncGetMetersSlow(&slow_.context, request_, &queue_);
  slow_.reader->StartCall(&slow_);
}

// The thread ends before the queue is shut down, since it might be about to start another read.
BareReader::~BareReader() {
  if (wokenBy_ == WokenBy::Alarm) {
    alarm_.Set(&queue_, gpr_now(GPR_CLOCK_REALTIME), nullptr);
  } else {
    cancel();
  }
  thread_.join();
  if (wokenBy_ == WokenBy::Alarm) cancel();
  queue_.Shutdown();
  void* tag = nullptr;
  bool ok = false;
  while (queue_.Next(&tag, &ok)) {
  }
}

void BareReader::cancel() {
  fast_.context.TryCancel();
  if (hasSlow_) slow_.context.TryCancel();
}

void BareReader::drain() {
  void* tag = nullptr;
  bool ok = false;
  int open = hasSlow_ ? 2 : 1;
  while (open > 0 && queue_.AsyncNext(&tag, &ok, gpr_inf_future(GPR_CLOCK_REALTIME)) ==
                         grpc::CompletionQueue::GOT_EVENT) {
    if (tag == nullptr) return;
    if (!proceed(*static_cast<Stream*>(tag), ok)) --open;
  }
}

// Returns false when the stream has ended.
bool BareReader::proceed(Stream& stream, bool ok) {
  if (!ok) return false;
  if (stream.started) {
    stream.messages.fetch_add(1, std::memory_order_relaxed);
    if (handler_) handler_(stream.meter);
  }
  stream.started = true;
  stream.reader->Read(&stream.meter, &stream);
  return true;
}

struct BareSender::Call {
  grpc::ClientContext context;
  sonalith::grpcengine::RequestSetParams request;
  sonalith::grpcengine::ResponseSetParams response;
  grpc::Status status;
};

BareSender::BareSender(const std::string& target) {
  thread_ = std::thread(&BareSender::drain, this);
  stub_ = Engine::NewStub(openChannel(target));
}

BareSender::~BareSender() {
  queue_.Shutdown();
  thread_.join();
}

void BareSender::drain() {
  void* tag = nullptr;
  bool ok = false;
  while (queue_.AsyncNext(&tag, &ok, gpr_inf_future(GPR_CLOCK_REALTIME)) ==
         grpc::CompletionQueue::GOT_EVENT) {
    delete static_cast<Call*>(tag);
  }
}

void BareSender::send(const std::vector<std::string>& keys) {
  auto* const call = new Call;
  for (const std::string& key : keys) {
    auto* const param = call->request.add_params();
    param->set_key(key);
    param->mutable_value()->set_sfloat(1);
  }
  auto reader = stub_->PrepareAsyncSetParams(&call->context, call->request, &queue_);
  reader->StartCall();
  reader.release()->Finish(&call->response, &call->status, call);
}

}  // namespace bench
