// A configuration made of what was seen on a meter server's streams.
//
// Not everything can be said in a configuration: the module carries four types, and the file's own
// rules keep some keys out. What is left out says why.
//
// Threads: one at a time; `checkReadsBack` needs a standin::Host, since the module's ConfigManager,
// which it asks, logs through the host.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tools/discover/Sightings.h"

namespace discover {

struct Finding {
  SeenKey seen;
  std::string omitted;    // why it has no entry, a sentence without its end; empty if it has one
  std::string customKey;  // of its entry, or empty

  bool hasEntry() const { return omitted.empty(); }
};

struct Draft {
  std::string target;
  std::vector<Finding> findings;     // in the order of Sightings::keys
  std::vector<std::string> remarks;  // a line each at the top: no newlines, 1000 bytes at most

  bool hasEntries() const;
  bool hasEntries(standin::SlotSet rate) const;
};

// Without remarks.
Draft draftOf(const std::string& target, const std::vector<SeenKey>& keys, bool customKeys);

// Why a configuration can't name this target, a sentence without its end; or nothing.
std::string complaintAboutTarget(std::string_view target);

// The configuration, which has an entry at least, as a file's text.
std::string textOf(const Draft& draft);

// Throws std::logic_error, telling the difference, unless the module reads `text` as what the draft
// means.
void checkReadsBack(const Draft& draft, const std::string& text);

}  // namespace discover
