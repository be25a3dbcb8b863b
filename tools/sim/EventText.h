// How the simulator's lines show what came over the wire: each value as one word or text that stays
// on its line. Any thread.
#pragma once

#include <string>
#include <string_view>

namespace sim {

// Bytes as in events and commands: two hexadecimal digits each, or - for none.
std::string hexOf(std::string_view bytes);

// The text with \x and two hexadecimal digits for each control character and each backslash.
std::string escaped(std::string_view text);

}  // namespace sim
