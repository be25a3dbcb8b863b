#include "tools/host/ValueHistory.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <string>
#include <type_traits>
#include <variant>

namespace host {
namespace {

using gateway::ValueType;
using standin::SlotValue;

constexpr std::chrono::milliseconds shortestPeriod(50);
constexpr std::chrono::seconds longestPause(1);  // between two looks, before it counts as a gap
constexpr std::size_t leastCapacity = 12;

std::uint32_t bitsOf(const SlotValue& value) {
  return std::visit(
      [](const auto& each) -> std::uint32_t {
        if constexpr (std::is_same_v<std::decay_t<decltype(each)>, std::string>)
          return 0;
        else
          return std::bit_cast<std::uint32_t>(each);
      },
      value);
}

SlotValue valueOf(ValueType type, std::uint32_t bits) {
  switch (type) {
    case ValueType::Int:
      return std::bit_cast<std::int32_t>(bits);
    case ValueType::Uint:
      return bits;
    case ValueType::Float:
      return std::bit_cast<float>(bits);
    case ValueType::String:
      break;
  }
  return std::string();
}

// A double holds the numbers of all types exactly.
double numberOf(ValueType type, std::uint32_t bits) {
  switch (type) {
    case ValueType::Int:
      return std::bit_cast<std::int32_t>(bits);
    case ValueType::Float:
      return std::bit_cast<float>(bits);
    case ValueType::Uint:
    case ValueType::String:
      break;
  }
  return bits;
}

}  // namespace

ValueHistory::ValueHistory(const std::vector<SlotLabel>& labels, Clock::time_point start,
                           std::size_t budget)
    : start_(start) {
  const auto hasHistory = [](const SlotLabel& label) { return label.type != ValueType::String; };
  const auto kept =
      static_cast<std::size_t>(std::count_if(labels.begin(), labels.end(), hasHistory));
  // Two entries more than the span has: the value at its beginning, and the current period.
  const std::size_t mostUseful = span / shortestPeriod + 2;
  const std::size_t affordable = budget / (sizeof(Entry) * std::max<std::size_t>(kept, 1));
  capacity_ = std::clamp(affordable, leastCapacity, mostUseful);
  period_ = std::chrono::ceil<std::chrono::milliseconds>(Clock::duration(span) /
                                                         static_cast<Clock::rep>(capacity_ - 2));
  for (const SlotLabel& label : labels) {
    rings_.emplace_back();
    if (!hasHistory(label)) continue;
    rings_.back() = Ring{.type = label.type, .begin = reserved_};
    reserved_ += capacity_;
  }
  entries_ = std::make_unique_for_overwrite<Entry[]>(reserved_);
}

void ValueHistory::take(const SlotBoard::Changes& changes) {
  const std::lock_guard lock(mutex_);
  if (lookTime_ && changes.time - *lookTime_ > longestPause) {
    gaps_.emplace_back(*lookTime_, changes.time);
  }
  while (!gaps_.empty() && gaps_.front().second < changes.time - span) gaps_.pop_front();
  look_ = changes.look;
  lookTime_ = changes.time;
  for (const auto& [slot, state] : changes.slots) {
    if (rings_[slot]) add(*rings_[slot], state);
  }
}

std::uint64_t ValueHistory::look() const {
  const std::lock_guard lock(mutex_);
  return look_;
}

bool ValueHistory::isKept(std::size_t slot) const {
  return slot < rings_.size() && rings_[slot].has_value();
}

std::uint32_t ValueHistory::periodOf(Clock::time_point time) const {
  return static_cast<std::uint32_t>(std::max(Clock::duration::zero(), time - start_) / period_);
}

void ValueHistory::add(Ring& ring, const SlotState& state) {
  const std::uint32_t bits = bitsOf(state.value);
  const Entry entry{periodOf(state.changed), bits, bits, bits};
  if (ring.written > 0 && entryOf(ring, 1).period == entry.period) {
    join(entryOf(ring, 1), entry, ring.type);
    return;
  }
  ++ring.written;
  entryOf(ring, 1) = entry;
}

// `age` is 1 for the latest entry.
ValueHistory::Entry& ValueHistory::entryOf(const Ring& ring, std::size_t age) const {
  return entries_[ring.begin + (ring.written - age) % capacity_];
}

void ValueHistory::join(Entry& entry, const Entry& later, ValueType type) {
  const auto number = [&](std::uint32_t bits) { return numberOf(type, bits); };
  entry.last = later.last;
  // The comparisons are false for a NaN.
  if (number(later.low) < number(entry.low) || std::isnan(number(entry.low))) entry.low = later.low;
  if (number(later.high) > number(entry.high) || std::isnan(number(entry.high))) {
    entry.high = later.high;
  }
}

ValueHistory::Trace ValueHistory::trace(std::size_t slot, Clock::duration window,
                                        std::size_t maxPoints) const {
  const std::lock_guard lock(mutex_);
  const auto periods = static_cast<std::size_t>(window / period_);
  const auto joined = static_cast<std::uint32_t>((periods + maxPoints - 1) / maxPoints);
  const std::uint32_t factor = std::max(joined, 1U);
  Trace trace{period_ * factor, {}};
  if (!isKept(slot) || !lookTime_) return trace;

  const Ring& ring = *rings_[slot];
  const std::uint32_t first = periodOf(*lookTime_ - window);
  std::vector<Entry> found;
  for (std::size_t age = std::min(ring.written, capacity_); age > 0; --age) {
    Entry entry = entryOf(ring, age);
    if (entry.period < first) {
      // Of an earlier period, only the last value still held when the window began.
      entry = {first, entry.last, entry.last, entry.last};
      found.clear();
    }
    entry.period -= entry.period % factor;
    const bool isSame = !found.empty() && found.back().period == entry.period;
    if (isSame)
      join(found.back(), entry, ring.type);
    else
      found.push_back(entry);
  }
  for (const Entry& entry : found) {
    const auto valueIn = [&](std::uint32_t bits) { return valueOf(ring.type, bits); };
    trace.points.push_back({start_ + period_ * entry.period, valueIn(entry.last),
                            valueIn(entry.low), valueIn(entry.high)});
  }
  return trace;
}

ValueHistory::Gaps ValueHistory::gaps() const {
  const std::lock_guard lock(mutex_);
  return {gaps_.begin(), gaps_.end()};
}

}  // namespace host
