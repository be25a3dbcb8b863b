// Texts as the entries of a configuration hold them. Any thread.
#pragma once

#include <string>
#include <string_view>

namespace tools {

// The text as the value of a word such as Key=, in quotes if it needs them.
std::string entryTextOf(std::string_view text);

}  // namespace tools
