#include "tests/proto/service_calls.h"

#include <grpcpp/create_channel.h>
#include <grpcpp/security/credentials.h>
#include <grpcpp/security/server_credentials.h>
#include <grpcpp/server_builder.h>

#include "sanitizers/ReactionOrder.h"
#include "tests/proto/wire.h"

namespace {

std::string kindOf(const grpc::internal::RpcMethod& method) {
  switch (method.method_type()) {
    case grpc::internal::RpcMethod::NORMAL_RPC:
      return "unary";
    case grpc::internal::RpcMethod::CLIENT_STREAMING:
      return "client streaming";
    case grpc::internal::RpcMethod::SERVER_STREAMING:
      return "server streaming";
    case grpc::internal::RpcMethod::BIDI_STREAMING:
      return "streaming";
  }
  return "unknown";
}

std::string spelled(const grpc::ByteBuffer& message) {
  std::vector<grpc::Slice> slices;
  if (!message.Dump(&slices).ok()) return "no message";
  std::string all;
  for (const grpc::Slice& slice : slices) {
    all.append(reinterpret_cast<const char*>(slice.begin()), slice.size());
  }
  return wire::spelled(all);
}

}  // namespace

grpc_connectivity_state RecordingChannel::GetState(bool) {
  return GRPC_CHANNEL_SHUTDOWN;
}

grpc::internal::Call RecordingChannel::CreateCall(const grpc::internal::RpcMethod& method,
                                                  grpc::ClientContext*, grpc::CompletionQueue*) {
  const char* suffix = method.suffix_for_stats();
  throw CreatedCall{method.name() + (" " + kindOf(method)) +
                    (suffix == nullptr ? "" : " suffix " + std::string(suffix))};
}

void RecordingChannel::PerformOpsOnCall(grpc::internal::CallOpSetInterface*,
                                        grpc::internal::Call*) {}

void* RecordingChannel::RegisterMethod(const char* method) {
  registered_.emplace_back(method);
  return nullptr;
}

void RecordingChannel::NotifyOnStateChangeImpl(grpc_connectivity_state, gpr_timespec,
                                               grpc::CompletionQueue*, void*) {}

bool RecordingChannel::WaitForStateChangeImpl(grpc_connectivity_state, gpr_timespec) {
  return false;
}

// Deletes itself at the end of its call.
class RecordingServer::Reactor final : public grpc::ServerGenericBidiReactor {
 public:
  Reactor(RecordingServer& server, std::string path) : server_(server), path_(std::move(path)) {
    { const ReactionOrder made(this); }
    StartRead(&message_);
  }

  void OnReadDone(bool ok) override {
    const ReactionOrder order(this);
    server_.keep(path_ + ": " + (ok ? spelled(message_) : "no message"));
    Finish(grpc::Status::OK);
  }
  void OnDone() override {
    { const ReactionOrder order(this); }
    delete this;
  }

 private:
  RecordingServer& server_;
  const std::string path_;
  grpc::ByteBuffer message_;
};

grpc::ServerGenericBidiReactor* RecordingServer::Service::CreateReactor(
    grpc::GenericCallbackServerContext* context) {
  return new Reactor(server_, context->method());
}

RecordingServer::RecordingServer() {
  grpc::ServerBuilder builder;
  builder.AddListeningPort("127.0.0.1:0", grpc::InsecureServerCredentials(), &port_);
  builder.RegisterCallbackGenericService(&service_);
  server_ = builder.BuildAndStart();
}

RecordingServer::~RecordingServer() {
  server_->Shutdown();
  server_->Wait();
}

std::shared_ptr<grpc::Channel> RecordingServer::channel() const {
  grpc::ChannelArguments arguments;
  arguments.SetInt(GRPC_ARG_ENABLE_HTTP_PROXY, 0);
  return grpc::CreateCustomChannel("127.0.0.1:" + std::to_string(port_),
                                   grpc::InsecureChannelCredentials(), arguments);
}

std::vector<std::string> RecordingServer::calls() const {
  const std::lock_guard lock(mutex_);
  return calls_;
}

void RecordingServer::keep(std::string call) {
  const std::lock_guard lock(mutex_);
  calls_.push_back(std::move(call));
}
