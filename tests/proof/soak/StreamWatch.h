// Judges whether each number of a stream reached its slot.
//
// A slot keeps only the last value. But a ring of slots keeps the last numbers, so looking at it
// often enough shows every single one. A number is missing if a later one has arrived and its slot
// still holds an earlier one. Missing numbers in a row are a gap. A gap may be there only if the
// stream was opened, or a fault that held its messages back was over, just before the first number
// after the gap was sent: one gap for each such break. If a slot already holds a later number, the
// look came too late to know.
//
// When the recorded stream ends in order, all it sent before must arrive. So must all it sends
// after it began again, if the module opened the stream within a second after that. Neither is
// required if a fault acted on the stream at about that time.
//
// Threads: one at a time.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tests/proof/soak/Course.h"

namespace soak {

class StreamWatch {
 public:
  using Clock = std::chrono::steady_clock;
  // Reads a slot of the ring; 0 if nothing has arrived there.
  using Read = std::function<std::int32_t(Number slot)>;
  using Now = std::function<Clock::time_point()>;

  StreamWatch(Course course, Read read, Now now = Clock::now)
      : course_(std::move(course)), read_(std::move(read)), now_(std::move(now)) {}

  // Call these when the simulator reports a break of this stream, and as long as a fault acts on
  // it.
  void breaks() { breaks_.push_back(now_()); }
  void disturbed();

  // Looks at all slots, and judges what it finds.
  void look();

  // Judges the gaps that still wait for the report of their break. Call this at the end.
  void judgeAll() { judge(Clock::time_point::max()); }

  // What is wrong, in sentences; empty if nothing is.
  const std::vector<std::string>& problems() const { return problems_; }

  // When the latest number was first seen; long ago if none was.
  Clock::time_point latest() const { return latest_; }
  // How late the newest number is by now: hardly, unless the stream is closed or messages wait.
  Clock::duration lateness() const { return now_() - timeOf(newest_); }
  // How many numbers were sent up to the newest one, and what became of them.
  std::uint64_t sent() const { return seen_ + inGaps_ + unknown_; }
  std::uint64_t seen() const { return seen_; }
  std::uint64_t inGaps() const { return inGaps_; }
  std::uint64_t unknown() const { return unknown_; }  // looked at too late
  // How many ends of the recorded stream had no missing number before or after them.
  std::uint64_t endsWithoutLoss() const { return endsWithoutLoss_; }

 private:
  struct Gap {
    Number first;
    Number last;
    std::optional<Number> next{};  // the first number after it that was seen
    Clock::time_point found{};
    std::uint64_t unknown = 0;  // how many numbers since `last` were looked at too late
    bool hasEnd = false;        // the last number before an end of the recorded stream is missing
  };

  Number heldBy(Number slot);
  void account(Number number, Number held);
  void saw(Number number);
  void missed(Number number);
  void endGap(Gap gap, Number next);
  void judge(Clock::time_point now);
  bool isExplained(const Gap& gap);
  void judgeEnd(const Gap& gap, Clock::time_point opened);
  bool wasDisturbed(Clock::time_point from, Clock::time_point to) const;
  void forget();
  Clock::time_point timeOf(Number number) const { return epoch_ + number * course_.interval; }
  void complain(const Gap& gap, const std::string& problem);

  const Course course_;
  const Read read_;
  const Now now_;
  Number newest_ = 0;
  Number lastSeen_ = 0;
  Clock::time_point latest_{};
  Clock::time_point epoch_ = Clock::time_point::max();  // when the replay began, or a little later
  std::optional<Gap> gap_;                              // whose end has not been seen
  std::deque<Gap> waiting_;                             // gaps whose break has not been reported
  std::deque<Clock::time_point> breaks_;
  std::deque<Clock::time_point> disturbances_;
  std::vector<std::string> problems_;
  std::uint64_t seen_ = 0;
  std::uint64_t inGaps_ = 0;
  std::uint64_t unknown_ = 0;
  std::uint64_t endsWithoutLoss_ = 0;
};

}  // namespace soak
