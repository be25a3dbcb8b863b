// What went wrong while listening, and what to do about it, for people to read. Any thread.
#pragma once

#include <string>
#include <vector>

#include "tools/discover/Listener.h"

namespace discover {

// One problem per text: whole sentences on one line, 1000 bytes at most. Empty if both streams
// stayed open and brought values, and every message could be read.
std::vector<std::string> problemsOf(const std::string& target, double seconds, const Heard& heard);

}  // namespace discover
