// How the simulator's lines show bytes. Any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace sim {

// Bytes as in events and commands: two hexadecimal digits each, or - for none.
std::string hexOf(std::string_view bytes);

// The bytes that such a text stands for. Nothing if it is not of this form.
std::optional<std::string> bytesOfHex(std::string_view hex);

}  // namespace sim
