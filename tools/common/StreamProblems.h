// What went wrong while listening, and what to do about it, for people to read. Any thread.
#pragma once

#include <string>
#include <vector>

#include "tools/common/Listener.h"

namespace tools {

// A status in one line, such as: UNAVAILABLE "Connection refused".
std::string describe(const grpc::Status& status);

struct StreamProblem {
  std::vector<standin::SlotSet> rates;  // the streams that have it: one or both
  std::string text;                     // whole sentences on one line, 1000 bytes at most
};

// Empty if both streams stayed open and brought values, every message could be read, and all keys
// could be kept.
std::vector<StreamProblem> problemsOf(const std::string& target, double seconds,
                                      const Heard& heard);

}  // namespace tools
