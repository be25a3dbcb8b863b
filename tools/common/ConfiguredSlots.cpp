#include "tools/common/ConfiguredSlots.h"

#include "module/grpc-gateway/GatewaySlots.h"

namespace tools {
namespace {

using gateway::EngineEntry;
using gateway::MeterEntry;
using standin::SlotSet;

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
                     .valueType = Group::valueType,
                     .position = i,
                     .name = generated ? Group::namePrefix + std::to_string(i) : entry.customKey,
                     .nameIsGenerated = generated,
                     .key = entry.key,
                     .defaultValue = defaultOf<T>(entry)});
  }
}

}  // namespace

std::vector<ConfiguredSlot> slotsOf(const gateway::ConfigManager& config) {
  std::vector<ConfiguredSlot> slots;
  append<std::string>(slots, SlotSet::Fast, config.fastMeterStrings);
  append<std::int32_t>(slots, SlotSet::Fast, config.fastMeterInts);
  append<std::uint32_t>(slots, SlotSet::Fast, config.fastMeterUints);
  append<float>(slots, SlotSet::Fast, config.fastMeterFloats);
  append<std::string>(slots, SlotSet::Slow, config.slowMeterStrings);
  append<std::int32_t>(slots, SlotSet::Slow, config.slowMeterInts);
  append<std::uint32_t>(slots, SlotSet::Slow, config.slowMeterUints);
  append<float>(slots, SlotSet::Slow, config.slowMeterFloats);
  append<std::string>(slots, SlotSet::Engine, config.engineStrings);
  append<std::int32_t>(slots, SlotSet::Engine, config.engineInts);
  append<std::uint32_t>(slots, SlotSet::Engine, config.engineUints);
  append<float>(slots, SlotSet::Engine, config.engineFloats);
  return slots;
}

std::string_view typeNameOf(std::uint32_t valueType) {
  switch (valueType) {
    case SONALITH_SLOT_STRING:
      return "string";
    case SONALITH_SLOT_INT:
      return "int";
    case SONALITH_SLOT_UINT:
      return "uint";
    default:
      return "float";
  }
}

}  // namespace tools
