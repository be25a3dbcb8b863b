// The words of a Meter or Param value, with their places. Any thread.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/check/Scanner.h"

namespace check {

struct Word {
  Span place;        // within the value, its quotes included
  std::string text;  // without its quotes
};

struct EntryWords {
  std::vector<Word> words;               // those in front of an open quote, if there is one
  std::optional<std::size_t> openQuote;  // where in the value it stands
  std::optional<std::size_t> comment;    // where in the value a "#" ends the words
};

EntryWords entryWordsOf(std::string_view value);

// The first "\" in front of `end` that is taken away although what follows it stands for itself: a
// letter or a digit outside quotes, or the end of the text.
std::optional<std::size_t> lostBackslashIn(std::string_view value, std::size_t end);

// A word taken apart as the module does it.
struct Field {
  enum class Shape {
    Whole,           // a name and a value
    Cut,             // the same, and text behind a second "="
    Empty,           // nothing between quotes
    WithoutEquals,   // passed over
    EndingInEquals,  // passed over
  };
  Shape shape = Shape::Whole;
  std::string name = {};
  std::string value = {};
  std::string dropped = {};  // of a cut one
};

Field fieldOf(std::string_view word);

// The place of a field's value within the value of the pair. It is that of the whole word if quotes
// begin in front of the value.
Span placeOfValue(std::string_view value, const Word& word);

}  // namespace check
