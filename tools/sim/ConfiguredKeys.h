// What a configuration of the gateway wants to receive, as keys to play.
#pragma once

#include <string>
#include <vector>

#include "tools/sim/Signals.h"

namespace sim {

// Each meter key that the file names, with its type and rate: a key of both rates or of several
// types comes once for each. One that is not UTF-8 is left out, and standard error tells so. The
// module's own reader reads the file, and what that says goes to standard error. Throws
// std::runtime_error if it refuses the file or can't read it. No standin::Host may exist meanwhile.
std::vector<KeySpec> configuredKeys(const std::string& path);

}  // namespace sim
