#include "tools/host/Expectations.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <variant>

#include "tools/common/Junit.h"
#include "tools/common/Numbers.h"
#include "tools/common/Suggestion.h"
#include "tools/common/Words.h"

namespace host {
namespace {

std::vector<std::string> namesOf(const SlotBoard& board) {
  std::vector<std::string> names;
  for (const SlotLabel& label : board.labels()) names.push_back(label.name);
  return names;
}

std::optional<double> secondsIn(std::string_view word) {
  if (word.ends_with('s')) word.remove_suffix(1);
  const auto seconds = tools::numberIn<double>(word);
  return seconds && *seconds >= 0 && *seconds <= 1e9 ? seconds : std::nullopt;
}

bool readRange(std::string_view word, Expectation& expectation) {
  const auto dots = word.find("..");
  if (dots == word.npos) return false;
  const auto least = tools::numberIn<double>(word.substr(0, dots));
  const auto most = tools::numberIn<double>(word.substr(dots + 2));
  if (!least || !most || !(*least <= *most)) return false;
  expectation.isRange = true;
  expectation.least = *least;
  expectation.most = *most;
  return true;
}

std::optional<double> numberOf(const standin::SlotValue& value) {
  return std::visit(
      [](const auto& held) -> std::optional<double> {
        if constexpr (std::is_same_v<std::decay_t<decltype(held)>, std::string>) {
          return std::nullopt;
        } else {
          return static_cast<double>(held);
        }
      },
      value);
}

}  // namespace

Expectation parseExpectation(const std::string& text) {
  const auto words = tools::quotedWordsOf(text);
  if (words.size() == 5 && words[3] == "within") {
    Expectation expectation{.text = text, .slot = words[0], .value = words[2]};
    const auto seconds = secondsIn(words[4]);
    const bool isKnown = words[1] == "is" || (words[1] == "in" && readRange(words[2], expectation));
    expectation.limit = std::chrono::duration<double>(seconds.value_or(0));
    if (isKnown && seconds) return expectation;
  }
  throw std::invalid_argument(fmt::format(
      "\"{}\" is neither \"SLOT in LEAST..MOST within SECONDSs\" nor \"SLOT is VALUE within "
      "SECONDSs\"",
      text));
}

Expectations::Expectations(std::vector<Expectation> expected,
                           std::shared_ptr<const SlotBoard> board, Clock::time_point start)
    : expected_(std::move(expected)), start_(start) {
  follow(std::move(board));
  for (std::size_t i = 0; i < expected_.size(); ++i) {
    const std::string& slot = expected_[i].slot;
    if (!slots_[i]) {
      throw std::invalid_argument(
          fmt::format("no slot \"{}\"{}", slot, tools::didYouMean(slot, namesOf(*board_))));
    }
    outcomes_.push_back({.text = expected_[i].text, .value = {}});
  }
}

void Expectations::follow(std::shared_ptr<const SlotBoard> board) {
  board_ = std::move(board);
  slots_.clear();
  const std::vector<std::string> names = namesOf(*board_);
  for (const Expectation& each : expected_) {
    const auto found = std::find(names.begin(), names.end(), each.slot);
    slots_.emplace_back();
    if (found != names.end()) slots_.back() = static_cast<std::size_t>(found - names.begin());
  }
}

bool Expectations::check(Clock::time_point now) {
  const std::chrono::duration<double> passed = now - start_;
  const auto states = board_->states();
  bool areDecided = true;
  for (std::size_t i = 0; i < expected_.size(); ++i) {
    Outcome& outcome = outcomes_[i];
    const bool isOver = passed > expected_[i].limit;
    if (outcome.isMet || (isOver && outcome.seconds > expected_[i].limit.count())) continue;
    outcome.seconds = passed.count();
    if (const auto slot = slots_[i]) {
      outcome.value = standin::textOf(states[*slot].value);
      outcome.isMet = isMet(expected_[i], *slot, states[*slot]);
    } else {
      outcome.value = "no such slot";
    }
    areDecided = areDecided && (outcome.isMet || isOver);
  }
  return areDecided;
}

bool Expectations::isMet(const Expectation& expectation, std::size_t slot,
                         const SlotState& state) const {
  const bool isMeter = board_->labels()[slot].set != standin::SlotSet::Engine;
  if (isMeter && !state.hasMoved()) return false;
  if (!expectation.isRange) return standin::textOf(state.value) == expectation.value;
  const auto number = numberOf(state.value);
  return number && *number >= expectation.least && *number <= expectation.most;
}

bool Expectations::areMet() const {
  return std::all_of(outcomes_.begin(), outcomes_.end(),
                     [](const Outcome& outcome) { return outcome.isMet; });
}

std::string junitOf(const std::vector<Expectations::Outcome>& outcomes) {
  std::vector<tools::JunitCase> cases;
  for (const auto& [text, isMet, seconds, value] : outcomes) {
    cases.push_back({.name = text, .seconds = seconds});
    if (!isMet) cases.back().failure = fmt::format("the last value was {}", value);
  }
  return tools::junitOf("gatewayctl host", cases);
}

}  // namespace host
