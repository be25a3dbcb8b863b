// What went wrong while listening to a meter server. Any thread.
#pragma once

#include <string>
#include <vector>

#include "tools/common/Listener.h"

namespace tools {

// A status in one line, such as: UNAVAILABLE "Connection refused".
std::string describe(const grpc::Status& status);

// Empty if both streams stayed open and brought values, every message could be read, and all keys
// could be kept.
std::vector<StreamProblem> problemsOf(const std::string& target, double seconds,
                                      const Heard& heard);

// The text and the advice on one line, 1000 bytes at most.
std::string sentencesOf(const StreamProblem& problem);

}  // namespace tools
