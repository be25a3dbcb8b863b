#include "tools/common/Listener.h"

#include <grpcpp/create_channel.h>
#include <grpcpp/generic/generic_stub.h>
#include <grpcpp/resource_quota.h>
#include <grpcpp/security/credentials.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <system_error>
#include <utility>

#include "common.pb.h"
#include "sanitizers/ReactionOrder.h"
#include "tools/common/ByteBuffer.h"

namespace tools {
namespace {

using standin::SlotSet;

constexpr char fastMethod[] = "/sonalith.grpc.Meters/GetMetersFast";
constexpr char slowMethod[] = "/sonalith.grpc.Meters/GetMetersSlow";

std::shared_ptr<grpc::Channel> connect(const std::string& target) {
  grpc::ChannelArguments arguments;
  arguments.SetMaxReceiveMessageSize(receivedMessageLimit);
  grpc::ResourceQuota quota;
  quota.Resize(receiveLimit);
  arguments.SetResourceQuota(quota);
  return grpc::CreateCustomChannel(target, grpc::InsecureChannelCredentials(), arguments);
}

// Receives the events of both streams.
class StreamListener {
 public:
  virtual ~StreamListener() = default;
  virtual void took(SlotSet rate, const std::string& message) = 0;
  // The stream's last event.
  virtual void ended(SlotSet rate, const grpc::Status& status) = 0;
};

class Stream final : public grpc::ClientBidiReactor<grpc::ByteBuffer, grpc::ByteBuffer> {
 public:
  Stream(SlotSet rate, StreamListener& listener) : rate_(rate), listener_(listener) {}

  void begin(grpc::GenericStub& stub) {
    const ReactionOrder order(this);
    stub.PrepareBidiStreamingCall(&context_, rate_ == SlotSet::Fast ? fastMethod : slowMethod, {},
                                  this);
    const grpc::Slice request(sonalith::common::Empty().SerializeAsString());
    request_ = grpc::ByteBuffer(&request, 1);
    StartWriteLast(&request_, {});
    StartRead(&message_);
    StartCall();
  }

  void cancel() { context_.TryCancel(); }

  void OnReadDone(bool ok) override {
    const ReactionOrder order(this);
    if (!ok) return;
    listener_.took(rate_, bytesOf(message_));
    message_.Clear();
    StartRead(&message_);
  }

  void OnDone(const grpc::Status& status) override {
    const ReactionOrder order(this);
    listener_.ended(rate_, status);
  }

 private:
  const SlotSet rate_;
  StreamListener& listener_;
  grpc::ClientContext context_;
  grpc::ByteBuffer request_;
  grpc::ByteBuffer message_;
};

int makeEventDescriptor() {
  const int descriptor = eventfd(0, EFD_CLOEXEC);
  if (descriptor < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
  return descriptor;
}

}  // namespace

struct Listener::State final : StreamListener {
  State(const std::string& target, Sightings sightings)
      : channel(connect(target)), stub(channel), heard{.sightings = std::move(sightings)} {
    fast.begin(stub);
    slow.begin(stub);
  }

  ~State() override { close(overEvent); }

  bool isConnected() const { return channel->GetState(false) == GRPC_CHANNEL_READY; }

  void took(SlotSet rate, const std::string& message) override {
    const std::lock_guard lock(mutex);
    if (finishing) return;
    heard.sightings.take(rate, message);
    if (heard.sightings.hasSeenExpected()) eventfd_write(overEvent, 1);
  }

  void ended(SlotSet rate, const grpc::Status& status) override {
    const bool wasConnected = isConnected();
    const std::lock_guard lock(mutex);
    if (!finishing) {
      (rate == SlotSet::Fast ? heard.fastEnd : heard.slowEnd) = StreamEnd{status, wasConnected};
    }
    if (--open == 0) eventfd_write(overEvent, 1);
    over.notify_all();
  }

  void finish() {
    std::unique_lock lock(mutex);
    if (!finishing) heard.connected = isConnected();
    finishing = true;
    lock.unlock();
    fast.cancel();
    slow.cancel();
    lock.lock();
    over.wait(lock, [&] { return open == 0; });
  }

  const int overEvent = makeEventDescriptor();
  std::shared_ptr<grpc::Channel> channel;
  grpc::GenericStub stub;

  std::mutex mutex;  // protects all below except the streams
  std::condition_variable over;
  Heard heard;
  int open = 2;
  bool finishing = false;

  Stream fast{SlotSet::Fast, *this};
  Stream slow{SlotSet::Slow, *this};
};

Listener::Listener(const std::string& target, Sightings sightings)
    : state_(std::make_unique<State>(target, std::move(sightings))) {}

Listener::~Listener() {
  state_->finish();
}

int Listener::overDescriptor() const {
  return state_->overEvent;
}

Heard Listener::finish() {
  state_->finish();
  return std::move(state_->heard);
}

}  // namespace tools
