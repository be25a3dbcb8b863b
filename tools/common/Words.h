// Lines taken apart into words, and texts that stay on their line. Any thread.
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

// The text with \x and two hexadecimal digits for each control character and each backslash, so
// that it stays on its line.
std::string printable(std::string_view text);

}  // namespace tools
