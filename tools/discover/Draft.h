// A configuration for what a meter server has sent.
//
// A configuration can't hold everything: the module carries four types of value, and the file
// format excludes some keys. Each key without an entry comes with the reason.
//
// Threads: one at a time. `checkReadsBack` needs a standin::Host, because the module's own
// ConfigManager reads the text, and logs through the host.
#pragma once

#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "tools/common/ConfiguredSlots.h"
#include "tools/common/Sightings.h"
#include "tools/discover/CustomKeys.h"
#include "tools/discover/Selection.h"

namespace discover {

using tools::SeenKey;

// What a configuration has to which a draft is added.
struct Known {
  bool hasFast = true;  // whether the rate is switched on
  bool hasSlow = true;
  std::set<std::tuple<standin::SlotSet, gateway::ValueType, std::string>> entries{};
  CustomKeys names{};
};

struct Finding {
  SeenKey seen;
  std::string omitted;        // why it has no entry, without a full stop; empty if it has one
  std::string customKey;      // of the entry, or empty
  bool isConfigured = false;  // an entry is known

  bool hasEntry() const { return omitted.empty(); }
  bool hasNewEntry() const { return hasEntry() && !isConfigured; }
};

struct Draft {
  std::string target;
  std::vector<Finding> findings;     // in the order of Sightings::keys
  std::vector<std::string> remarks;  // comments at the top: no newlines, 1000 bytes each at most

  bool hasEntries() const;
  bool hasEntries(standin::SlotSet rate) const;
};

// Without remarks.
Draft draftOf(const std::string& target, const std::vector<SeenKey>& keys,
              const Naming& naming = {}, Known known = {});

// Why a configuration can't hold this target, without a full stop; empty if it can.
std::string complaintAboutTarget(std::string_view target);

// The text of the configuration file, for a draft that has entries.
std::string textOf(const Draft& draft);
// Of that text, the sections with new entries, each after an empty line.
std::string sectionsOf(const Draft& draft);

// Throws std::logic_error, which names the difference, unless the module reads from `text` what the
// draft means.
void checkReadsBack(const Draft& draft, const std::string& text);
// Likewise, unless these slots are those of the draft's new entries.
void checkEntries(const Draft& draft, const std::vector<tools::ConfiguredSlot>& slots);
[[noreturn]] void failReadBack(std::string_view difference);

}  // namespace discover
