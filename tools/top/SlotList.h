// The slots of a running module, as a list that people filter and sort. It holds a copy of the
// board's values, so that a list that is not updated stands still.
//
// Threads: one at a time.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tools/host/SlotBoard.h"
#include "tools/top/Level.h"

namespace top {

using host::Clock;

enum class Order { Configured, Name, Value, Age, Changes };

// "name", as options and the screen call it. All are of Order, in its order.
inline constexpr std::array<std::string_view, 5> orderNames{"configured", "name", "value", "age",
                                                            "changes"};
std::string_view nameOf(Order order);

struct Sorting {
  Order by = Order::Configured;
  bool isReversed = false;

  bool operator==(const Sorting&) const = default;
};
// By an order as people look for it: the greatest values and counts first.
Sorting sortingBy(Order order);
// The same, for a name of the above. Throws std::out_of_range for another.
Sorting sortingBy(std::string_view name);

// What a slot's age says about its value.
enum class Freshness { Parameter, Unchanged, Stale, Changing };

struct SlotRow {
  host::SlotLabel label;
  host::SlotState state;
  Seen seen;

  Freshness freshness(Clock::time_point now) const;
};

class SlotList {
 public:
  explicit SlotList(std::shared_ptr<const host::SlotBoard> board);

  const host::SlotBoard* board() const { return board_.get(); }

  // Takes the board's latest values.
  void update();
  // When they were looked at.
  Clock::time_point time() const { return time_; }

  // Shows only slots whose name or key contains each of these words, whatever their case.
  void filter(std::string_view words);
  // Texts, and what is not a number, come last in the order of values, either way.
  void sort(const Sorting& sorting);
  const Sorting& sorting() const { return sorting_; }
  // Whether the order can change with the values, so that it has to be sorted again.
  bool isMoving() const;
  // Sorts by the latest values. Equal slots keep the order of the configuration.
  void arrange();

  std::size_t size() const { return rows_.size(); }
  // The indices of the rows to show, in order.
  const std::vector<std::size_t>& shown() const { return shown_; }
  const SlotRow& row(std::size_t index) const { return rows_[index]; }
  // The columns of the longest name.
  int nameWidth() const { return nameWidth_; }

 private:
  template <class Before>
  void sortBy(const Before& before);
  void sortByValue();

  std::shared_ptr<const host::SlotBoard> board_;
  std::uint64_t look_ = 0;
  Clock::time_point time_;
  std::vector<SlotRow> rows_;
  std::vector<Text> searched_;  // names and keys, in lower case
  int nameWidth_ = 0;
  Sorting sorting_;
  std::vector<Text> words_;
  std::vector<std::size_t> shown_;
};

}  // namespace top
