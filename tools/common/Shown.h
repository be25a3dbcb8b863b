// Foreign text, made safe for messages and comments. Any thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace tools {

// The text in quotes, on one line. Escapes control characters, replaces broken UTF-8, and cuts what
// is longer than `limit` bytes off with "...".
std::string shown(std::string_view text, std::size_t limit = 100);

// The first `limit` bytes of a text, or a few less so that no character is split.
std::string_view cutTo(std::string_view text, std::size_t limit);

}  // namespace tools
