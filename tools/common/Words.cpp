#include "tools/common/Words.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <stdexcept>

#include "shquote/shquote.h"

namespace tools {

std::vector<std::string_view> wordsOf(std::string_view line) {
  constexpr std::string_view blanks = " \t\r";
  std::vector<std::string_view> words;
  for (auto begin = line.find_first_not_of(blanks); begin != line.npos;
       begin = line.find_first_not_of(blanks, begin)) {
    const auto end = std::min(line.find_first_of(blanks, begin), line.size());
    words.push_back(line.substr(begin, end - begin));
    begin = end;
  }
  return words;
}

std::vector<std::string> quotedWordsOf(std::string_view line) {
  char** found = nullptr;
  std::size_t count = 0;
  if (c_shquote_parse_argv(&found, &count, line.data(), line.size()) != 0) {
    throw std::invalid_argument("a quote is left open");
  }
  const std::unique_ptr<char*[], decltype(&std::free)> owner(found, std::free);
  return {found, found + count};
}

std::string printable(std::string_view text) {
  std::string line;
  for (const char character : text) {
    const auto code = static_cast<unsigned char>(character);
    if (code < 0x20 || code == 0x7f || character == '\\') {
      fmt::format_to(std::back_inserter(line), "\\x{:02x}", code);
    } else {
      line += character;
    }
  }
  return line;
}

std::string escaped(std::string_view text, std::string_view characters) {
  std::string written;
  for (const char character : text) {
    if (characters.find(character) != characters.npos) written += '\\';
    written += character;
  }
  return written;
}

}  // namespace tools
