#include "tools/check/EntryWords.h"

#include <algorithm>
#include <array>
#include <cctype>

#include "shquote/shquote.h"
#include "tools/check/Vocabulary.h"

namespace check {
namespace {

// The position of the open quote in `text`, which must have one.
std::size_t openQuoteIn(std::string_view text) {
  std::size_t i = 0;
  while (i < text.size()) {
    const std::size_t begin = i;
    const char quote = text[i++];
    if (quote == '\\') ++i;
    if (quote != '"' && quote != '\'') continue;
    while (i < text.size() && text[i] != quote) i += quote == '"' && text[i] == '\\' ? 2 : 1;
    if (i >= text.size()) return begin;
    ++i;
  }
  return text.size();
}

}  // namespace

EntryWords entryWordsOf(std::string_view value) {
  EntryWords found;
  found.words.reserve(wordsOf(SectionKind::MeterEntries).size());
  found.room.resize(value.size());
  const char* in = value.data();
  std::size_t left = value.size();
  char* out = found.room.data();
  std::size_t roomLeft = found.room.size();
  for (;;) {
    const std::size_t begin = value.size() - left;
    const char* const text = out;
    const int result = c_shquote_parse_next(&out, &roomLeft, &in, &left);
    // The comment reaches to the end, since a value has no newline.
    if (left > 0 && *in == '#' && result != 0) found.comment = begin;
    if (result == SHQUOTE_ERR_UNTERMINATED) found.openQuote = begin + openQuoteIn({in, left});
    if (result != 0) return found;
    std::size_t size = value.size() - left - begin;
    const std::string_view taken = value.substr(begin, size);
    const std::size_t lastByte = taken.find_last_not_of(" \t");
    if (lastByte != taken.npos) size = lastByte + 1;
    found.words.push_back({{begin, size}, {text, static_cast<std::size_t>(out - text)}});
  }
}

std::optional<std::size_t> lostBackslashIn(std::string_view value, std::size_t end) {
  const std::string_view text = value.substr(0, end);
  if (text.find('\\') == text.npos) return std::nullopt;
  std::size_t i = 0;
  while (i < text.size()) {
    const char character = text[i];
    if (character == '\\') {
      if (i + 1 == text.size() || std::isalnum(static_cast<unsigned char>(text[i + 1])) != 0) {
        return i;
      }
      ++i;
    } else if (character == '"' || character == '\'') {
      for (++i; i < text.size() && text[i] != character; ++i) {
        if (character == '"' && text[i] == '\\') ++i;
      }
    }
    ++i;
  }
  return std::nullopt;
}

bool beginsCurly(std::string_view text) {
  constexpr std::array<std::string_view, 5> curly = {"\u201C", "\u201D", "\u201E", "\u2018",
                                                     "\u2019"};
  return std::any_of(curly.begin(), curly.end(),
                     [&](std::string_view each) { return text.starts_with(each); });
}

Field fieldOf(std::string_view word) {
  const std::size_t equals = word.find('=');
  if (word.empty()) return {.shape = Field::Shape::Empty};
  if (equals == word.npos) return {.shape = Field::Shape::WithoutEquals};
  const std::string_view name = word.substr(0, equals);
  if (word.back() == '=') return {.shape = Field::Shape::EndingInEquals, .name = name};
  const std::string_view rest = word.substr(equals + 1);
  const std::size_t second = rest.find('=');
  if (second == rest.npos) return {.name = name, .value = rest};
  return {.shape = Field::Shape::Cut,
          .name = name,
          .value = rest.substr(0, second),
          .dropped = rest.substr(second)};
}

Span placeOfValue(std::string_view value, const Word& word) {
  const std::string_view text = word.place.of(value);
  const std::size_t equals = text.find('=');
  const std::string_view name = text.substr(0, equals);
  if (equals == text.npos || name.find_first_of("\"'\\") != name.npos) return word.place;
  return {word.place.begin + equals + 1, word.place.size - equals - 1};
}

}  // namespace check
