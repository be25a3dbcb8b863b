// How the slots of two configurations differ. An engine finds a slot by its place in its list and
// by its name, so both matter. Any thread.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "tools/common/ConfiguredSlots.h"

namespace host {

// A slot that is in only one of the configurations, or that differs between them. It is the same
// slot if it has the same key; otherwise, if it has the same name.
struct SlotChange {
  std::optional<tools::ConfiguredSlot> before;  // nothing for a new slot
  std::optional<tools::ConfiguredSlot> after;   // nothing for one that is gone

  // "new", "gone", "moved", "renamed", "retyped", "rekeyed", "default": one or several.
  std::vector<std::string> kinds() const;
};

// In the order of the later configuration; those that are gone come last.
std::vector<SlotChange> changesBetween(const std::vector<tools::ConfiguredSlot>& before,
                                       const std::vector<tools::ConfiguredSlot>& after);

// Such as "moved, renamed: fast float 1 level, was fast float 0 loudness".
std::string textOf(const SlotChange& change);

// {"kinds":[...],"before":SLOT,"after":SLOT}, where SLOT is {"set","type","position","name","key"}
// or null.
nlohmann::json jsonOf(const SlotChange& change);

}  // namespace host
