// The slots that a configuration gives, with what the host is not told of them: their keys, and
// whether their names were made up.
//
// The configuration is read by the module's own ConfigManager, so that nothing here can see it
// otherwise than the module does. That one logs through the host's operations: a standin::Host has
// to exist while it reads, and its log sink hears why a file was refused.
//
// Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "module/grpc-gateway/ConfigManager.h"
#include "standin/LoadedModule.h"

namespace tools {

struct ConfiguredSlot {
  standin::SlotSet set;
  std::uint32_t valueType;          // SONALITH_SLOT_...
  std::size_t position;             // in its list: from 0, for each set and type
  std::string name;                 // of the slot
  bool nameIsGenerated;             // the configuration has no CustomKey
  std::string key;                  // on the stream or at the engine service
  standin::SlotValue defaultValue;  // of the slot's type, as configured; zero for an engine slot

  bool operator==(const ConfiguredSlot&) const = default;
};

// All slots in the order in which the host sees them: fast, slow, engine, and in each string, int,
// uint, float.
std::vector<ConfiguredSlot> slotsOf(const gateway::ConfigManager& config);

// As configurations and commands call it: "string", "int", "uint", "float".
std::string_view typeNameOf(std::uint32_t valueType);

}  // namespace tools
