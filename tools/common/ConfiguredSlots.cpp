#include "tools/common/ConfiguredSlots.h"

#include "module/grpc-gateway/GatewaySlots.h"

namespace tools {
namespace {

using gateway::EngineEntry;
using gateway::MeterEntry;
using gateway::MeterEntryType;
using standin::SlotSet;

template <class T>
using MeterList = std::vector<MeterEntry<T>>;

template <class T>
T defaultOf(const MeterEntry<T>& entry) {
  return entry.defaultValue;
}

template <class T>
T defaultOf(const EngineEntry&) {
  return {};
}

template <class T, class Entry>
void append(std::vector<ConfiguredSlot>& slots, SlotSet set, const std::vector<Entry>& entries) {
  using Group = gateway::GatewaySlotGroup<T>;
  for (std::size_t i = 0; i < entries.size(); ++i) {
    const Entry& entry = entries[i];
    const bool generated = entry.customKey.empty();
    slots.push_back({.set = set,
                     .type = gateway::ListsOf<T>::type,
                     .position = i,
                     .name = generated ? Group::namePrefix + std::to_string(i) : entry.customKey,
                     .nameIsGenerated = generated,
                     .key = entry.key,
                     .defaultValue = defaultOf<T>(entry)});
  }
}

}  // namespace

ConfiguredSettings settingsOf(const gateway::ConfigManager& config) {
  return {.metersTarget = config.metersTarget,
          .fastMeters = config.enableFastMeters,
          .slowMeters = config.enableSlowMeters,
          .engineTarget = config.engineTarget};
}

std::vector<ConfiguredSlot> slotsOf(const gateway::ConfigManager& config) {
  std::vector<ConfiguredSlot> slots;
  gateway::visitMeters(config, MeterEntryType::Fast, [&]<class T>(const MeterList<T>& list) {
    append<T>(slots, SlotSet::Fast, list);
  });
  gateway::visitMeters(config, MeterEntryType::Slow, [&]<class T>(const MeterList<T>& list) {
    append<T>(slots, SlotSet::Slow, list);
  });
  gateway::visitParams(config,
                       [&]<class T>(const auto& list) { append<T>(slots, SlotSet::Engine, list); });
  return slots;
}

}  // namespace tools
