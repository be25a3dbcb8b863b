#include "tools/Words.h"

#include <algorithm>
#include <cstdlib>
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

}  // namespace tools
