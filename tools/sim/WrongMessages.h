// Messages for a meter stream that a client should live through. Any thread.
#pragma once

#include <string>
#include <vector>

#include "tools/sim/FaultPlan.h"
#include "tools/sim/Signals.h"

namespace sim {

// The message that a fault of FaultGroup::Message or Half sends, with the keys that play at `rate`.
std::string wrongMessage(const Fault& fault, const std::vector<KeySpec>& keys, Method rate);

}  // namespace sim
