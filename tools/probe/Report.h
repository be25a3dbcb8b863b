// The outcome of a probe for people, programs and continuous integration. Any thread.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tools/common/ExitCode.h"
#include "tools/probe/Results.h"

namespace probe {

struct Outcome {
  std::string target;
  std::string engine;  // or empty
  int level;
  bool wasInterrupted;
  std::vector<Result> results;

  // The highest level whose required checks and those below held, 0 if there is none: a check that
  // was skipped shows nothing. Without an engine, its checks do not count.
  int reached() const;
  tools::ExitCode exitCode() const;
};

// A result: a line with its verdict and what was seen. Unless the check was skipped, lines of at
// most `width` columns follow, with what should hold and why it matters.
std::string textOf(const Result& result, std::size_t width);

// How many checks held, and which level was reached; one line.
std::string summaryOf(const Outcome& outcome);

// As `gatewayctl probe --help` describes it.
std::string jsonOf(const Outcome& outcome);

// A test case for each check. A recommended check that did not hold is not a failure; its test case
// says so in its output.
std::string junitOf(const Outcome& outcome);

}  // namespace probe
