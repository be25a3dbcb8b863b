// Compares the slots and settings of two configurations, as the host sees them.
//
// A slot is the same in both if its entry is. What identifies an entry best is its list and its
// key; then its key, and last its CustomKey. So a line that shifts the generated names below it
// renames those slots. It doesn't remove any.
//
// Any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/common/ConfiguredSlots.h"

namespace check {

// The settings and slots of an accepted configuration.
struct Configured {
  tools::ConfiguredSettings settings;
  std::vector<tools::ConfiguredSlot> slots;
};

struct SettingChange {
  std::string_view setting;  // "[Meters] Target"
  std::string before;
  std::string after;
};

// What can happen to a slot, worst first.
enum class Change {
  Gone,
  OtherType,
  OtherRate,
  Renamed,
  Moved,     // to another position in its list
  OtherKey,  // it gets its values from another meter, or changes another parameter
  OtherDefault,
  New,
};
std::string_view nameOf(Change change);

// How one slot differs.
struct SlotChange {
  std::optional<tools::ConfiguredSlot> before = {};  // nothing: the slot is new
  std::optional<tools::ConfiguredSlot> after = {};   // nothing: the slot is gone

  // At least one, worst first.
  std::vector<Change> changes() const;
  // Whether a host that uses the slot has to be adapted: it is gone, or has another name, type or
  // place.
  bool affectsHost() const;
};

struct Comparison {
  std::vector<SettingChange> settings = {};
  // Those of the old configuration in its order, then the new ones in theirs. Slots without a
  // difference are left out.
  std::vector<SlotChange> slots = {};

  bool isEmpty() const { return settings.empty() && slots.empty(); }
  bool affectsHost() const;
};

Comparison compare(const Configured& before, const Configured& after);

}  // namespace check
