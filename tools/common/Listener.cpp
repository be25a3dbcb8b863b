#include "tools/common/Listener.h"

#include <grpcpp/generic/generic_stub.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <system_error>
#include <utility>

#include "tools/common/ByteBuffer.h"
#include "tools/common/MeterStream.h"

namespace tools {
namespace {

using standin::SlotSet;

int makeEventDescriptor() {
  const int descriptor = eventfd(0, EFD_CLOEXEC);
  if (descriptor < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
  return descriptor;
}

}  // namespace

struct Listener::State final : MeterStreamListener {
  State(const std::string& target, Sightings sightings, ListenerObserver* watching)
      : observer(watching),
        channel(connectToMeters(target, receivedMessageLimit)),
        stub(channel),
        heard{.sightings = std::move(sightings)} {
    fast.begin(stub);
    slow.begin(stub);
  }

  ~State() override { close(overEvent); }

  bool isConnected() const { return channel->GetState(false) == GRPC_CHANNEL_READY; }

  void opened(SlotSet) override {}

  void took(SlotSet rate, const grpc::ByteBuffer& message) override {
    const std::lock_guard lock(mutex);
    if (finishing) return;
    heard.sightings.take(rate, bytesOf(message));
    if (observer != nullptr) observer->took(rate, message.Length(), heard.sightings);
    if (heard.sightings.hasSeenExpected()) eventfd_write(overEvent, 1);
  }

  void ended(SlotSet rate, const grpc::Status& status) override {
    const bool wasConnected = isConnected();
    const std::lock_guard lock(mutex);
    if (!finishing) {
      (rate == SlotSet::Fast ? heard.fastEnd : heard.slowEnd) = StreamEnd{status, wasConnected};
      if (observer != nullptr) observer->ended(rate, status);
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
  ListenerObserver* const observer;  // or null
  std::shared_ptr<grpc::Channel> channel;
  grpc::GenericStub stub;

  std::mutex mutex;  // protects all below except the streams
  std::condition_variable over;
  Heard heard;
  int open = 2;
  bool finishing = false;

  MeterStream fast{SlotSet::Fast, *this};
  MeterStream slow{SlotSet::Slow, *this};
};

Listener::Listener(const std::string& target, Sightings sightings, ListenerObserver* observer)
    : state_(std::make_unique<State>(target, std::move(sightings), observer)) {}

Listener::~Listener() {
  state_->finish();
}

int Listener::overDescriptor() const {
  return state_->overEvent;
}

void Listener::cancel(SlotSet rate) {
  (rate == SlotSet::Fast ? state_->fast : state_->slow).cancel();
}

Heard Listener::finish() {
  state_->finish();
  return std::move(state_->heard);
}

}  // namespace tools
