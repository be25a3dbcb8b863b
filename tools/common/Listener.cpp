#include "tools/common/Listener.h"

#include <google/protobuf/stubs/logging.h>
#include <grpc/grpc.h>
#include <grpcpp/generic/generic_stub.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <system_error>
#include <utility>

#include "tools/common/ByteBuffer.h"
#include "tools/common/MeterStream.h"
#include "tools/common/Terminal.h"

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

void Listener::look(const std::function<void(const Heard&)>& use) const {
  const std::lock_guard lock(state_->mutex);
  use(state_->heard);
}

void Listener::cancel(SlotSet rate) {
  (rate == SlotSet::Fast ? state_->fast : state_->slow).cancel();
}

Heard Listener::finish() {
  state_->finish();
  return std::move(state_->heard);
}

void prepareToListen() {
  // Without grpc_shutdown: that can wait ten seconds for one of gRPC's threads, which the end of
  // the process ends anyway.
  grpc_init();
  // Keeps protobuf from logging texts that are not UTF-8: Sightings explains them better.
  google::protobuf::SetLogHandler(nullptr);
}

Listening listen(const std::string& target, double seconds, Sightings sightings) {
  const SignalDescriptor signals;
  prepareToListen();
  const auto begin = Clock::now();
  const auto deadline = momentIn(seconds);
  Listener listener(target, std::move(sightings));
  Arrival arrival = Arrival::Nothing;
  while (arrival == Arrival::Nothing && Clock::now() < deadline) {
    arrival = waitFor(signals, listener.overDescriptor(), deadline);
  }
  const std::chrono::duration<double> elapsed = Clock::now() - begin;
  return {.heard = listener.finish(),
          .seconds = elapsed.count(),
          .wasInterrupted = arrival == Arrival::Signal};
}

}  // namespace tools
