// One connection of a gateway to a meter server: both streams, and what can be said about their
// course while they run.
//
// Memory: that of a tools::Listener.
// Threads: the streams run on gRPC's threads; members are for one thread.
#pragma once

#include <array>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

#include "tools/common/Listener.h"
#include "tools/probe/Waiter.h"

namespace probe {

using standin::SlotSet;

inline constexpr std::array<SlotSet, 2> bothRates = {SlotSet::Fast, SlotSet::Slow};

// The course of one stream.
struct Course {
  std::uint64_t messages = 0;
  std::uint64_t bytes = 0;
  std::uint64_t longest = 0;                     // of all messages, in bytes
  std::uint64_t burst = 0;                       // the most messages within ten milliseconds
  Clock::time_point first;                       // when the first message came
  Clock::time_point last;                        // when the last message came
  Clock::duration longestPause{};                // between two messages
  std::optional<Clock::time_point> firstValues;  // when the first message with values came
  std::size_t snapshotKeys = 0;                  // how many keys it had
  std::optional<grpc::Status> end;               // nothing: it is open
};

class Watch final : private tools::ListenerObserver {
 public:
  // Opens both streams.
  explicit Watch(const std::string& target, tools::Sightings sightings = tools::Sightings());

  Course courseOf(SlotSet rate) const;
  Clock::time_point opened() const { return opened_; }
  // Signalled for each message and each end.
  const Event& event() const { return event_; }

  // Becomes true when all that the sightings expect has come.
  bool hasSeenExpected() const;

  // Cancels one stream. The other continues.
  void cancel(SlotSet rate) { listener_.cancel(rate); }

  // Ends both streams and returns what has come. Call this once.
  tools::Heard finish() { return listener_.finish(); }

 private:
  void took(SlotSet rate, std::size_t bytes, const tools::Sightings& sightings) override;
  void ended(SlotSet rate, const grpc::Status& status) override;

  // One stream, and the ten milliseconds that are being counted.
  struct Stream {
    Course course;
    Clock::time_point burstBegin;
    std::uint64_t burst = 0;
  };
  Stream& streamOf(SlotSet rate) { return streams_[rate == SlotSet::Fast ? 0 : 1]; }

  const Clock::time_point opened_ = Clock::now();
  const Event event_;
  mutable std::mutex mutex_;  // protects the streams
  std::array<Stream, 2> streams_;
  bool hasSeenExpected_ = false;
  // Last, because its threads use all of the above.
  tools::Listener listener_;
};

}  // namespace probe
