// What `gatewayctl check --compare` prints for people and programs. Any thread.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "tools/check/Comparison.h"

namespace check {

// The changes in groups, worst first, with at most 20 of each, and a summary as the last line.
std::string textOf(const Comparison& comparison, const std::string& before,
                   const std::string& after);

// All changes. The manual describes the members.
nlohmann::json jsonOf(const Comparison& comparison);

}  // namespace check
