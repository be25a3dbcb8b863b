// The last ten minutes of every number among a module's slots, in a fixed amount of memory. Texts
// have no history.
//
// Time is divided into periods. For each period in which a slot changed, the history keeps the
// slot's last, lowest and highest value; a slot that does not change takes nothing. All slots have
// the same space, as much as the budget allows, and the period is the shortest for which ten
// minutes fit into it. With the default budget of 64 MiB it is 50 ms for up to 349 slots, so that
// every sample is kept, 287 ms for 2,000 slots, and 2.9 s for 20,000. The space is reserved at once
// and never grows; the system provides each page of memory when a change is first written there.
//
// A history begins with the slot's first change, because a default is no measurement. The values
// of a gap, in which the host took no samples, are unknown.
//
// Any thread.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "tools/host/SlotBoard.h"

namespace host {

class ValueHistory {
 public:
  static constexpr std::chrono::minutes span{10};
  static constexpr std::size_t defaultBudget = std::size_t{64} << 20;  // bytes

  // Times before `start` count as `start`. Each slot gets at least 192 bytes, even beyond the
  // budget.
  ValueHistory(const std::vector<SlotLabel>& labels, Clock::time_point start,
               std::size_t budget = defaultBudget);

  // Takes what a look at the slots found. Call it in the order of the looks.
  void take(const SlotBoard::Changes& changes);
  // Number of the latest look taken: the next `since` of SlotBoard::changesSince.
  std::uint64_t look() const;

  // Whether a slot, by its place in the labels, has a history.
  bool isKept(std::size_t slot) const;
  // Bytes reserved for the values of all slots.
  std::size_t reserved() const { return reserved_ * sizeof(Entry); }

  // The slot held these values during the trace's period, which begins at `time`, and then `last`
  // until the next point. A NaN is the lowest or highest value only if there was no other.
  struct Point {
    Clock::time_point time;
    standin::SlotValue last;
    standin::SlotValue low;
    standin::SlotValue high;
  };
  struct Trace {
    Clock::duration period;
    std::vector<Point> points;  // oldest first
  };
  // The history of a slot from `window` before the latest look. The first point has the value that
  // the slot held when the window began, if that is known. If the window has more than `maxPoints`
  // periods, several are joined into a longer one. No points if there is no history.
  Trace trace(std::size_t slot, Clock::duration window, std::size_t maxPoints) const;

  // When each time without samples began and ended, oldest first.
  using Gaps = std::vector<std::pair<Clock::time_point, Clock::time_point>>;
  Gaps gaps() const;

 private:
  // Values are kept as the 32 bits of the slot's type.
  struct Entry {
    std::uint32_t period;  // its number, from 0 at the start
    std::uint32_t last;
    std::uint32_t low;
    std::uint32_t high;
  };
  // Where the entries of a slot are.
  struct Ring {
    gateway::ValueType type;
    std::size_t begin;
    std::size_t written = 0;  // entries so far; the latest are kept
  };

  std::uint32_t periodOf(Clock::time_point time) const;
  void add(Ring& ring, const SlotState& state);
  Entry& entryOf(const Ring& ring, std::size_t age) const;
  static void join(Entry& entry, const Entry& later, gateway::ValueType type);

  const Clock::time_point start_;
  std::vector<std::optional<Ring>> rings_;  // by slot; none for a text
  std::size_t capacity_ = 0;                // entries of a slot
  std::size_t reserved_ = 0;                // entries of all slots
  Clock::duration period_{};
  std::unique_ptr<Entry[]> entries_;

  mutable std::mutex mutex_;  // guards everything below, the entries, and the rings' members
  std::uint64_t look_ = 0;
  std::optional<Clock::time_point> lookTime_;
  std::deque<Gaps::value_type> gaps_;
};

}  // namespace host
