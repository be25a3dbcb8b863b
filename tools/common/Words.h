// Splitting lines into words, keeping a text on one line, and escaping characters. Any thread.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tools {

// The words of a line, separated by blanks. They point into `line` and live as long as its text.
std::vector<std::string_view> wordsOf(std::string_view line);

// The words of a line, quoted as in a shell and as in configurations: "not ready" is one word.
// Throws std::invalid_argument for an unclosed quote.
std::vector<std::string> quotedWordsOf(std::string_view line);

// The text with each control character and backslash replaced by \x and two hexadecimal digits, so
// that it stays on one line.
std::string printable(std::string_view text);

// The text with a backslash before each of these characters.
std::string escaped(std::string_view text, std::string_view characters);

}  // namespace tools
