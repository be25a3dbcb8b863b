// What went wrong while listening, in words for people: what it is, and what to do about it. Any
// thread.
#pragma once

#include <string>
#include <vector>

#include "tools/discover/Listener.h"

namespace discover {

// Whole sentences, one problem each and on one line, of 1000 bytes at most. Nothing if both streams
// were open to the end, brought values and could be read.
std::vector<std::string> problemsOf(const std::string& target, double seconds, const Heard& heard);

}  // namespace discover
