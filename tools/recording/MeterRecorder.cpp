#include "tools/recording/MeterRecorder.h"

#include <fmt/format.h>
#include <grpcpp/generic/generic_stub.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include "tools/common/ByteBuffer.h"
#include "tools/common/MeterStream.h"
#include "tools/common/StatusName.h"
#include "tools/common/Words.h"

namespace recording {
namespace {

using Clock = std::chrono::steady_clock;
using standin::SlotSet;

constexpr std::chrono::seconds retryDelay(5);

Stream streamOf(SlotSet rate) {
  return rate == SlotSet::Fast ? Stream::Fast : Stream::Slow;
}

std::string sentenceOf(SlotSet rate, const grpc::Status& status) {
  return fmt::format("the {} stream ended: {}{}{}; it is opened again in 5 seconds", nameOf(rate),
                     tools::statusText(status.error_code()),
                     status.error_message().empty() ? "" : " ",
                     tools::printable(status.error_message()));
}

}  // namespace

struct MeterRecorder::State final : tools::MeterStreamListener {
  // A stream, in its latest attempt.
  struct Attempts {
    SlotSet rate;
    std::uint32_t number = 0;  // of the attempt, from 1
    std::unique_ptr<tools::MeterStream> stream{};
    bool isOpen = false;
    Clock::time_point next{};  // when it is not open
  };

  State(const std::string& target_, Recorder& recorder_, Say say_)
      : target(target_),
        recorder(recorder_),
        say(std::move(say_)),
        stub(tools::connectToMeters(target, static_cast<int>(contentLimit))),
        retrying([this] { retry(); }) {}

  ~State() override {
    std::unique_lock lock(mutex);
    ends = true;
    changed.notify_all();
    lock.unlock();
    retrying.join();
    for (auto& each : attempts) {
      if (each.stream) each.stream->cancel();
    }
    lock.lock();
    changed.wait(lock, [&] { return !attempts[0].isOpen && !attempts[1].isOpen; });
  }

  Attempts& of(SlotSet rate) { return attempts[rate == SlotSet::Fast ? 0 : 1]; }

  // Only the retrying thread starts streams, and it is joined before they end.
  void open(Attempts& each) {
    each.stream = std::make_unique<tools::MeterStream>(each.rate, *this);
    recorder.add(Kind::Started, streamOf(each.rate), each.number, target);
    each.stream->begin(stub);
  }

  void retry() {
    std::unique_lock lock(mutex);
    while (!ends) {
      auto next = Clock::time_point::max();
      for (auto& each : attempts) {
        if (each.isOpen) continue;
        if (each.next > Clock::now()) {
          next = std::min(next, each.next);
          continue;
        }
        each.isOpen = true;
        ++each.number;
        lock.unlock();
        open(each);
        lock.lock();
      }
      if (ends) return;
      wait(lock, next);
    }
  }

  void wait(std::unique_lock<std::mutex>& lock, Clock::time_point next) {
    const auto isDue = [&] {
      if (ends) return true;
      for (const auto& each : attempts) {
        if (!each.isOpen && each.next < next) return true;
      }
      return false;
    };
    if (next == Clock::time_point::max()) {
      changed.wait(lock, isDue);
    } else {
      changed.wait_until(lock, next, isDue);
    }
  }

  // The number of an attempt changes only while its stream is over.
  void opened(SlotSet rate) override {
    recorder.add(Kind::Opened, streamOf(rate), of(rate).number, "");
  }

  void took(SlotSet rate, const grpc::ByteBuffer& message) override {
    recorder.add(Kind::Message, streamOf(rate), of(rate).number, tools::bytesOf(message));
  }

  void ended(SlotSet rate, const grpc::Status& status) override {
    const std::lock_guard lock(mutex);
    auto& each = of(rate);
    if (!ends) {
      const std::string text = status.error_message();
      const EndContent end{static_cast<std::int32_t>(status.error_code()), text};
      recorder.add(Kind::Ended, streamOf(rate), each.number, contentOf(end));
      say(sentenceOf(rate, status));
    }
    each.isOpen = false;
    each.next = Clock::now() + retryDelay;
    changed.notify_all();
  }

  const std::string target;
  Recorder& recorder;
  const Say say;
  grpc::GenericStub stub;

  std::mutex mutex;  // protects all below; a stream's own events read its number without it
  std::condition_variable changed;
  std::array<Attempts, 2> attempts{{{SlotSet::Fast}, {SlotSet::Slow}}};
  bool ends = false;

  std::thread retrying;  // opens the streams
};

MeterRecorder::MeterRecorder(const std::string& target, Recorder& recorder, Say say)
    : state_(std::make_unique<State>(target, recorder, std::move(say))) {}

MeterRecorder::~MeterRecorder() = default;

}  // namespace recording
