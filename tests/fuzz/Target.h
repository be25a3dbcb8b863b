// A fuzz target: one function that tries one input. Around it stands either libFuzzer, which makes
// up inputs, or Replay.cpp, which goes through the corpus and runs among the tests of any build.
//
// Threads: one.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace fuzz {

enum class Result {
  Accepted,
  Refused,
  PassedOver,  // no input of this target: it says nothing
};

// Each target's own. Ends the process if the code under test breaks a promise.
Result tryInput(std::string_view input);

void require(bool promise, std::string_view text);

// How the inputs so far ended. Printed when the process ends. A long run whose inputs have all
// ended the same way fails: it has tried only half of what it is for.
struct Counts {
  std::uint64_t accepted = 0;
  std::uint64_t refused = 0;
  std::uint64_t passedOver = 0;

  bool haveBoth() const { return accepted > 0 && refused > 0; }
};
const Counts& counts();

}  // namespace fuzz
