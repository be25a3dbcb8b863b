// Reads the value of a Meter or Param line as the module does, and reports what is wrong with it.
// Threads: one at a time, like LineReport.
#pragma once

#include <optional>
#include <string>

#include "tools/check/LineReport.h"
#include "tools/check/Vocabulary.h"

namespace check {

struct Entry {
  std::string key;
  std::string customKey;
  bool isSlow = false;
  Span place;  // the whole value, or the text of the line if there is none
  Span keyPlace;
  Span customKeyPlace;
};

// Reads the value at `value` within the line. Returns the entry that the module appends, or nothing
// if the module refuses the line.
std::optional<Entry> readEntry(const Section& section, Span value, LineReport& report);

}  // namespace check
