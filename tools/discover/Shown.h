// Foreign text, as it may stand in messages and comments. Any thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace discover {

// The text in quotes on one line: control characters and broken UTF-8 are escaped or replaced, and
// what is longer than `limit` bytes ends in "...".
std::string shown(std::string_view text, std::size_t limit = 100);

// The beginning of a text, at most `limit` bytes, and no part of a character that is cut off.
std::string_view cutTo(std::string_view text, std::size_t limit);

}  // namespace discover
