// Rules about the value of a Meter or Param line. Any thread.
//
// The value is first read as the module reads it: split into words, and grouped where several words
// were meant as one. Then each rule judges the words that concern it.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/check/Finding.h"
#include "tools/check/Vocabulary.h"

namespace check {

struct Entry {
  std::string key = {};
  std::string customKey = {};
  bool isSlow = false;
  Span place;  // the whole value, or the text of the line if there is none
  Span keyPlace;
  Span customKeyPlace;
};

struct JudgedEntry {
  std::optional<Entry> entry;  // that the module appends; nothing if it refuses the line
  std::vector<Finding> findings;
};

// Judges the value of the line, in a section of entries.
JudgedEntry judgeEntry(const Section& section, const Line& line, const SourceFile& file);

}  // namespace check
