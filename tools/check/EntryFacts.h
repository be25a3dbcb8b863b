// What the rules about the value of a Meter or Param line are given. Any thread.
//
// The facts refer to the line and its section, which must outlive them.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "tools/check/EntryWords.h"
#include "tools/check/Finding.h"
#include "tools/check/Vocabulary.h"

namespace check {

// A value, split into words as the module splits it.
struct EntryFacts {
  const Section& section;
  const Line& line;
  std::string_view consequence;
  std::string_view value;
  EntryWords split;
  std::vector<Field> fields;  // one for each word

  const std::vector<Word>& words() const { return split.words; }
  bool isMeter() const { return section.kind == SectionKind::MeterEntries; }
  const std::vector<std::string>& known() const { return wordsOf(section.kind); }
  bool knows(std::string_view name) const { return isWordOf(section.kind, name); }
  // Whether the module reads a word with this name.
  bool has(std::string_view name) const {
    return std::any_of(fields.begin(), fields.end(),
                       [&](const Field& each) { return each.isRead() && each.name == name; });
  }
  // Like knows(), but ignores case.
  std::string_view sameAs(std::string_view name) const { return sameNameIn(name, known()); }
  std::string_view source(std::size_t index) const { return words()[index].place.of(value); }

  // Converts a place within the value to a place within the line.
  Span inLine(Span part) const { return {line.value.begin + part.begin, part.size}; }
};

// A word that the entry accepts.
struct WordFacts {
  const EntryFacts& entry;
  const Word& word;
  const Field& field;
  const Field* earlier;  // the last word before it with the same name, or null

  // In the line.
  Span place() const { return entry.inLine(placeOfValue(entry.value, word)); }
  bool isName() const { return field.name == "Key" || field.name == "CustomKey"; }
};

}  // namespace check
