// The slots of a running module, as a list that people filter and sort. It holds a copy of the
// board's values, so a pause only means that nobody calls update().
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

// The names of the orders in options and on the screen, indexed by Order.
inline constexpr std::array<std::string_view, 5> orderNames{"configured", "name", "value", "age",
                                                            "changes"};
std::string_view nameOf(Order order);

struct Sorting {
  Order by = Order::Configured;
  bool isReversed = false;

  bool operator==(const Sorting&) const = default;
};
// The sorting that people expect of an order: the greatest values and counts first.
Sorting sortingBy(Order order);
// The same for one of orderNames. Throws std::out_of_range for any other name.
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
  // When the board took them.
  Clock::time_point time() const { return time_; }

  // Shows only slots whose name or key contains each of these words, whatever their case.
  void filter(std::string_view words);
  // In the order of values, texts and NaN come last, even if it is reversed.
  void sort(const Sorting& sorting);
  const Sorting& sorting() const { return sorting_; }
  // Whether the order depends on the values, so that it has to be sorted again when they change.
  bool isMoving() const;
  // Sorts by the latest values. Equal slots keep the order of the configuration.
  void arrange();

  std::size_t size() const { return rows_.size(); }
  // The indices of the rows to show, in order.
  const std::vector<std::size_t>& shown() const { return shown_; }
  const SlotRow& row(std::size_t index) const { return rows_[index]; }
  // The width of the longest name in columns.
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
