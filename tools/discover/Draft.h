// A configuration for what a meter server has sent.
//
// A configuration can't hold everything: the module carries four types of value, and the file
// format excludes some keys. Each key without an entry comes with the reason.
//
// Threads: one at a time. `checkReadsBack` needs a standin::Host, because the module's own
// ConfigManager reads the text, and logs through the host.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tools/common/Sightings.h"

namespace discover {

using tools::SeenKey;

struct Finding {
  SeenKey seen;
  std::string omitted;    // why it has no entry, without a full stop; empty if it has one
  std::string customKey;  // of the entry, or empty

  bool hasEntry() const { return omitted.empty(); }
};

struct Draft {
  std::string target;
  std::vector<Finding> findings;     // in the order of Sightings::keys
  std::vector<std::string> remarks;  // comments at the top: no newlines, 1000 bytes each at most

  bool hasEntries() const;
  bool hasEntries(standin::SlotSet rate) const;
};

// Without remarks.
Draft draftOf(const std::string& target, const std::vector<SeenKey>& keys, bool customKeys);

// Why a configuration can't hold this target, without a full stop; empty if it can.
std::string complaintAboutTarget(std::string_view target);

// The text of the configuration file, for a draft that has entries.
std::string textOf(const Draft& draft);

// Throws std::logic_error, which names the difference, unless the module reads from `text` what the
// draft means.
void checkReadsBack(const Draft& draft, const std::string& text);

}  // namespace discover
