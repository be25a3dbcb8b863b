// The keys that a gateway with a given configuration receives, as keys to play.
#pragma once

#include <string>
#include <vector>

#include "tools/sim/Signals.h"

namespace sim {

// Each meter key of the file, with its type and rate. A key with both rates or several types comes
// once for each. Leaves out keys that are not UTF-8, and says so on standard error. The module's
// own reader reads the file, and its log goes to standard error. Throws std::runtime_error if the
// reader refuses the file or can't read it. No standin::Host may exist meanwhile.
std::vector<KeySpec> configuredKeys(const std::string& path);

}  // namespace sim
