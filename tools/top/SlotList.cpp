#include "tools/top/SlotList.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <cwctype>
#include <stdexcept>
#include <utility>
#include <variant>

#include "tools/common/Words.h"

namespace top {
namespace {

constexpr std::chrono::seconds staleAfter{5};

Text lowered(Text text) {
  for (wchar_t& c : text) {
    c = static_cast<wchar_t>(std::towlower(static_cast<std::wint_t>(c)));
  }
  return text;
}

// Numbers within names count as numbers: level_9 comes before level_10.
bool isNameBefore(const SlotRow& a, const SlotRow& b) {
  return strverscmp(a.label.name.c_str(), b.label.name.c_str()) < 0;
}

// Changing values count as equally old, or their rows would keep moving.
Clock::duration sortedAge(const SlotRow& row, Clock::time_point now) {
  const Clock::duration age = now - row.state.changed;
  return age <= staleAfter && row.state.hasMoved() ? Clock::duration::zero() : age;
}

}  // namespace

std::string_view nameOf(Order order) {
  return orderNames[static_cast<std::size_t>(order)];
}

Sorting sortingBy(Order order) {
  return {order, order == Order::Value || order == Order::Changes};
}

Sorting sortingBy(std::string_view name) {
  const auto found = std::find(orderNames.begin(), orderNames.end(), name);
  if (found == orderNames.end()) throw std::out_of_range(std::string(name));
  return sortingBy(Order{static_cast<int>(found - orderNames.begin())});
}

Freshness SlotRow::freshness(Clock::time_point now) const {
  if (label.set == standin::SlotSet::Engine) return Freshness::Parameter;
  if (!state.hasMoved()) return Freshness::Unchanged;
  return now - state.changed > staleAfter ? Freshness::Stale : Freshness::Changing;
}

SlotList::SlotList(std::shared_ptr<const host::SlotBoard> board) : board_(std::move(board)) {
  // Get the look's number first: a change in between is then taken twice rather than never.
  look_ = board_->changesSince(UINT64_MAX).look;
  const auto states = board_->states();
  rows_.reserve(states.size());
  for (std::size_t i = 0; i < states.size(); ++i) {
    const host::SlotLabel& label = board_->labels()[i];
    rows_.push_back({label, states[i], {}});
    rows_.back().seen.add(states[i].value);
    const Text name = textOf(label.name);
    nameWidth_ = std::max(nameWidth_, widthOf(name));
    searched_.push_back(lowered(name + L'\n' + textOf(label.key)));
  }
  update();
  arrange();
}

void SlotList::update() {
  const auto changes = board_->changesSince(look_);
  look_ = changes.look;
  time_ = changes.time;
  for (const auto& [index, state] : changes.slots) {
    rows_[index].state = state;
    rows_[index].seen.add(state.value);
  }
}

void SlotList::filter(std::string_view words) {
  words_.clear();
  for (const std::string_view word : tools::wordsOf(words)) {
    words_.push_back(lowered(textOf(word)));
  }
  arrange();
}

void SlotList::sort(const Sorting& sorting) {
  sorting_ = sorting;
  arrange();
}

bool SlotList::isMoving() const {
  switch (sorting_.by) {
    case Order::Configured:
    case Order::Name:
      return false;
    case Order::Value:
    case Order::Age:
    case Order::Changes:
      break;
  }
  return true;
}

void SlotList::arrange() {
  shown_.clear();
  for (std::size_t i = 0; i < rows_.size(); ++i) {
    const auto isThere = [&](const Text& word) { return searched_[i].find(word) != Text::npos; };
    if (std::all_of(words_.begin(), words_.end(), isThere)) shown_.push_back(i);
  }
  switch (sorting_.by) {
    case Order::Configured:
      return sortBy([](const SlotRow&, const SlotRow&) { return false; });
    case Order::Name:
      return sortBy(isNameBefore);
    case Order::Value:
      return sortByValue();
    case Order::Age:
      return sortBy([this](const SlotRow& a, const SlotRow& b) {
        return sortedAge(a, time_) < sortedAge(b, time_);
      });
    case Order::Changes:
      return sortBy(
          [](const SlotRow& a, const SlotRow& b) { return a.state.changes < b.state.changes; });
  }
}

template <class Before>
void SlotList::sortBy(const Before& before) {
  const bool isReversed = sorting_.isReversed;
  if (sorting_.by == Order::Configured) {
    if (isReversed) std::reverse(shown_.begin(), shown_.end());
    return;
  }
  std::stable_sort(shown_.begin(), shown_.end(), [&](std::size_t a, std::size_t b) {
    return isReversed ? before(rows_[b], rows_[a]) : before(rows_[a], rows_[b]);
  });
}

void SlotList::sortByValue() {
  const auto isNumber = [this](std::size_t i) {
    return !std::isnan(numberOf(rows_[i].state.value));
  };
  const auto end = std::stable_partition(shown_.begin(), shown_.end(), isNumber);
  std::stable_sort(shown_.begin(), end, [this](std::size_t a, std::size_t b) {
    if (sorting_.isReversed) std::swap(a, b);
    return numberOf(rows_[a].state.value) < numberOf(rows_[b].state.value);
  });
  std::stable_sort(end, shown_.end(), [this](std::size_t a, std::size_t b) {
    if (sorting_.isReversed) std::swap(a, b);
    const auto* const x = std::get_if<std::string>(&rows_[a].state.value);
    const auto* const y = std::get_if<std::string>(&rows_[b].state.value);
    return x != nullptr && (y == nullptr || *x < *y);
  });
}

}  // namespace top
