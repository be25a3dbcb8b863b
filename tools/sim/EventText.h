// How the simulator's lines show bytes. Any thread.
#pragma once

#include <string>
#include <string_view>

namespace sim {

// Bytes as in events and commands: two hexadecimal digits each, or - for none.
std::string hexOf(std::string_view bytes);

}  // namespace sim
