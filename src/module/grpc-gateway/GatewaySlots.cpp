#include "module/grpc-gateway/GatewaySlots.h"

#include <cstdio>
#include <type_traits>

namespace gateway {
namespace {

template <class Entry>
constexpr bool isMeter = !std::is_same_v<Entry, EngineEntry>;

void setName(sonalith_slotText& name, const char* prefix, const std::string& customKey,
             std::size_t position) {
  if (customKey.empty()) {
    std::snprintf(name, sizeof(name), "%s%ld", prefix, static_cast<long>(position));
  } else {
    sonalith_strncpy(name, customKey.c_str(), sizeof(name));
  }
}

void setDefault(sonalith_slotText& value, const std::string& defaultValue) {
  sonalith_strncpy(value, defaultValue.c_str(), sizeof(value));
}

template <class T>
void setDefault(T& value, const T& defaultValue) {
  value = defaultValue;
}

// Meter slots and engine slots differ in validator and flags.
template <class Entry, class Value>
sonalith_moduleOffset describe(const sonalith_slotText& name, Value& value, ValueType type,
                               const char* description) {
  sonalith_moduleOffset slot{};
  slot.name = name;
  slot.value = &value;
  slot.valueSize = sizeof(value);
  slot.valueType = static_cast<std::uint32_t>(type);
  slot.validator = isMeter<Entry> ? nullptr : sonalith_moduleValidateOk;
  slot.description = description;
  slot.flags = isMeter<Entry> ? 0 : 3;
  return slot;
}

template <class T>
T* allocate(std::size_t count) {
  return static_cast<T*>(sonalith_calloc(count, sizeof(T)));
}

template <class T, class Entry>
void buildGroup(const std::vector<Entry>& entries, GatewaySlotTable& table,
                sonalith_moduleOffsetList** offsets) {
  using Group = GatewaySlotGroup<T>;
  if (entries.empty()) return;
  auto*& values = table.*Group::values;
  auto*& names = table.*Group::names;
  values = allocate<std::remove_reference_t<decltype(*values)>>(entries.size());
  names = allocate<sonalith_slotText>(entries.size());
  if constexpr (isMeter<Entry>) table.*Group::count = entries.size();

  for (std::size_t i = 0; i < entries.size(); ++i) {
    // A private copy, because the loop calls the host while it uses the entry.
    const Entry entry = entries[i];  // NOLINT(performance-unnecessary-copy-initialization)
    if constexpr (isMeter<Entry>) setDefault(values[i], entry.defaultValue);
    setName(names[i], Group::namePrefix, entry.customKey, i);
    const sonalith_moduleOffset slot =
        describe<Entry>(names[i], values[i], ListsOf<T>::type, Group::description);
    sonalith_addModuleOffset(offsets, &slot);
  }
}

template <class T>
void releaseGroup(const GatewaySlotTable& table) {
  using Group = GatewaySlotGroup<T>;
  if (table.*Group::names != nullptr) sonalith_free(table.*Group::names);
  if (table.*Group::values != nullptr) sonalith_free(table.*Group::values);
}

}  // namespace

void buildEngineSlots(const ConfigManager& config, GatewaySlotTable& table,
                      sonalith_moduleOffsetList** offsets) {
  visitParams(config, [&]<class T>(const auto& list) { buildGroup<T>(list, table, offsets); });
}

template <class T>
void buildMeterSlots(const std::vector<MeterEntry<T>>& entries, GatewaySlotTable& table,
                     sonalith_moduleOffsetList** offsets) {
  buildGroup<T>(entries, table, offsets);
}

template void buildMeterSlots(const std::vector<MeterEntry<std::string>>& entries,
                              GatewaySlotTable& table, sonalith_moduleOffsetList** offsets);
template void buildMeterSlots(const std::vector<MeterEntry<std::int32_t>>& entries,
                              GatewaySlotTable& table, sonalith_moduleOffsetList** offsets);
template void buildMeterSlots(const std::vector<MeterEntry<std::uint32_t>>& entries,
                              GatewaySlotTable& table, sonalith_moduleOffsetList** offsets);
template void buildMeterSlots(const std::vector<MeterEntry<float>>& entries,
                              GatewaySlotTable& table, sonalith_moduleOffsetList** offsets);

void releaseSlots(const GatewaySlotTable& table) {
  visitValueTypes([&]<class T>() { releaseGroup<T>(table); });
}

}  // namespace gateway
