// The settings of a configuration and the slots that it produces, with what the host never learns:
// their keys, and whether their names were generated.
//
// The module's own ConfigManager reads the configuration, so that a tool sees exactly what the
// module sees. ConfigManager logs through the host's operations: a standin::Host must exist while
// it reads, and the host's log sink receives the reasons for a refusal.
//
// Any thread.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "host/sonalith.h"
#include "module/grpc-gateway/ConfigManager.h"
#include "standin/LoadedModule.h"

namespace tools {

// Bytes of a slot's name, or of a text that it holds: what its buffer has room for.
inline constexpr std::size_t slotTextLimit = SONALITH_SLOT_TEXT_SIZE - 1;

struct ConfiguredSlot {
  standin::SlotSet set;
  gateway::ValueType type;
  std::size_t position;             // in its list: from 0, for each set and type
  std::string name;                 // of the slot
  bool nameIsGenerated;             // the configuration has no CustomKey
  std::string key;                  // on the stream or at the engine service
  standin::SlotValue defaultValue;  // as configured; zero for an engine slot

  bool operator==(const ConfiguredSlot&) const = default;
};

struct ConfiguredSettings {
  std::string metersTarget;
  bool fastMeters = true;
  bool slowMeters = true;
  std::string engineTarget;

  bool operator==(const ConfiguredSettings&) const = default;
};

ConfiguredSettings settingsOf(const gateway::ConfigManager& config);

// All slots in the host's order: fast, slow, engine, and within each set string, int, uint, float.
std::vector<ConfiguredSlot> slotsOf(const gateway::ConfigManager& config);

}  // namespace tools
