// Splits a Meter or Param value into words, and says where each is. Any thread.
#pragma once

#include <cstddef>
#include <optional>
#include <string_view>
#include <vector>

#include "tools/check/Scanner.h"

namespace check {

struct Word {
  Span place;             // within the value, quotes included
  std::string_view text;  // without quotes; lives as long as its EntryWords
};

struct EntryWords {
  std::vector<char> room;                // for the texts of the words
  std::vector<Word> words;               // those before an open quote, if there is one
  std::optional<std::size_t> openQuote;  // its position in the value
  std::optional<std::size_t> comment;    // the position of a "#" that ends the words
};

EntryWords entryWordsOf(std::string_view value);

// The first "\" before `end` that is removed although it escapes nothing: it is outside quotes, and
// a letter, a digit or the end of the text follows.
std::optional<std::size_t> lostBackslashIn(std::string_view value, std::size_t end);

// Whether a typographic quote begins the text. Such a quote does not quote in an entry.
bool beginsCurly(std::string_view text);

// A word, split as the module splits it. Its parts refer to the text of the word.
struct Field {
  enum class Shape {
    Whole,           // a name and a value
    Cut,             // the same, and text after a second "="
    Empty,           // empty quotes
    WithoutEquals,   // the module ignores it
    EndingInEquals,  // the module ignores it
  };
  Shape shape = Shape::Whole;
  std::string_view name = {};
  std::string_view value = {};
  std::string_view dropped = {};  // the text from the second "=" on, if cut

  // Whether the module reads the word at all.
  bool isRead() const { return shape == Shape::Whole || shape == Shape::Cut; }
};

Field fieldOf(std::string_view word);
Field fieldOf(std::string&& word) = delete;

// The place of a field's value within the value of the pair. If quotes begin before the "=", it is
// the place of the whole word.
Span placeOfValue(std::string_view value, const Word& word);

}  // namespace check
