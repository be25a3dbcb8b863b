// The value of a Meter or Param line: what the module makes of it, and what is to be said about it.
// Threads: as the LineReport.
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
  Span place;  // the whole value; without one, the text of the line
  Span keyPlace;
  Span customKeyPlace;
};

// Reports on the value that stands at `value` in the line. Returns the entry that the module
// appends, or nothing if it refuses the line.
std::optional<Entry> readEntry(const Section& section, Span value, LineReport& report);

}  // namespace check
