// Lines taken apart into words. Any thread.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tools {

// The words of a line, parted by blanks. They are parts of `line`, and live as long as its text.
std::vector<std::string_view> wordsOf(std::string_view line);

// The words of a line, quoted as in a shell and as in configurations: "not ready" is one word.
// Throws std::invalid_argument if a quote is left open.
std::vector<std::string> quotedWordsOf(std::string_view line);

}  // namespace tools
