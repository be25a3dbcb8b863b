// What a run is expected to show, for tests of meter servers:
//
//   out_level in -60..0 within 5s
//   dsp_state is running within 10s
//
// An expectation is met when a look finds its slot so. A meter must also have moved since the
// start: its default says nothing about the server.
//
// Threads: one at a time.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/host/SlotBoard.h"

namespace host {

struct Expectation {
  std::string text;  // as written
  std::string slot;
  bool isRange = false;
  double least = 0;   // of a range
  double most = 0;    // of a range
  std::string value;  // otherwise: the value as text
  std::chrono::duration<double> limit{};
};

// Throws std::invalid_argument, which says what would be right.
Expectation parseExpectation(const std::string& text);

class Expectations {
 public:
  struct Outcome {
    std::string text;
    bool isMet = false;
    double seconds = 0;  // from the start until it was decided
    std::string value;   // the slot's latest
  };

  // Throws std::invalid_argument if the board has no such slot.
  Expectations(std::vector<Expectation> expected, std::shared_ptr<const SlotBoard> board,
               Clock::time_point start);

  // Follows another board from now on. An expectation whose slot that board lacks can't be met.
  void follow(std::shared_ptr<const SlotBoard> board);

  // Compares with the latest look. True once each expectation is met, or its time is over.
  bool check(Clock::time_point now);

  // In the order in which they were given. At first, none is met.
  const std::vector<Outcome>& outcomes() const { return outcomes_; }
  bool areMet() const;

 private:
  bool isMet(const Expectation& expectation, std::size_t slot, const SlotState& state) const;

  const std::vector<Expectation> expected_;
  std::shared_ptr<const SlotBoard> board_;
  const Clock::time_point start_;
  std::vector<std::optional<std::size_t>> slots_;  // the index of each expectation's slot
  std::vector<Outcome> outcomes_;
};

// The outcomes in the XML format of JUnit, a test case each.
std::string junitOf(const std::vector<Expectations::Outcome>& outcomes);

}  // namespace host
