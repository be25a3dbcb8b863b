// Meter messages written as JSON, with the types that reports use: string, int, uint, float,
// double, floats, ints, uints and nothing. Any thread.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace sim {

// The bytes of a Meter with these values: [{"key":"out.level","type":"float","value":-6.5}...].
// Throws std::invalid_argument, which names the wrong value and says what would be right.
std::string meterIn(const nlohmann::json& values);

}  // namespace sim
