// A fuzz target: one function that tries one input. Either libFuzzer calls it with generated
// inputs, or Replay.cpp calls it with the corpus, as a test in any build.
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
  Skipped,  // not a usable input for this target
};

// Each target defines this. It ends the process if the code under test breaks a promise.
Result tryInput(std::string_view input);

void require(bool promise, std::string_view text);

// The results of all inputs so far, printed at exit. A long run fails if all its inputs had the
// same result, since it has then tested only half of its purpose.
struct Counts {
  std::uint64_t accepted = 0;
  std::uint64_t refused = 0;
  std::uint64_t skipped = 0;

  bool haveBoth() const { return accepted > 0 && refused > 0; }
};
const Counts& counts();

}  // namespace fuzz
