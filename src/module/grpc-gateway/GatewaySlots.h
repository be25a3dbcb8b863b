// The module's slots: one named, typed value per configured entry, described to the host in an
// offset list.
//
// Threads: slots are made on the thread that starts the module; none is added or removed later. The
// host uses engine slots as it likes. One thread writes meter slots, and the host reads them at any
// time without a lock.
// Ownership: all memory comes from the host's sonalith_calloc, one array for a group's values and
// one for its names. The caller owns the table and returns the arrays with releaseSlots.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "host/sonalith.h"
#include "module/grpc-gateway/ConfigManager.h"

namespace gateway {

// The slots of one value type: the fields of the table that hold them, the prefix of generated
// names, which end with the entry's position, and the description.
template <class T>
struct GatewaySlotGroup;

template <>
struct GatewaySlotGroup<std::string> {
  static constexpr auto count = &GatewaySlotTable::stringCount;
  static constexpr auto names = &GatewaySlotTable::stringNames;
  static constexpr auto values = &GatewaySlotTable::stringValues;
  static constexpr char namePrefix[] = "gateway_string_";
  static constexpr char description[] = "generated gateway string";
};

template <>
struct GatewaySlotGroup<std::int32_t> {
  static constexpr auto count = &GatewaySlotTable::intCount;
  static constexpr auto names = &GatewaySlotTable::intNames;
  static constexpr auto values = &GatewaySlotTable::intValues;
  static constexpr char namePrefix[] = "gateway_int_";
  static constexpr char description[] = "generated gateway int";
};

template <>
struct GatewaySlotGroup<std::uint32_t> {
  static constexpr auto count = &GatewaySlotTable::uintCount;
  static constexpr auto names = &GatewaySlotTable::uintNames;
  static constexpr auto values = &GatewaySlotTable::uintValues;
  static constexpr char namePrefix[] = "gateway_uint_";
  static constexpr char description[] = "generated gateway uint";
};

template <>
struct GatewaySlotGroup<float> {
  static constexpr auto count = &GatewaySlotTable::floatCount;
  static constexpr auto names = &GatewaySlotTable::floatNames;
  static constexpr auto values = &GatewaySlotTable::floatValues;
  static constexpr char namePrefix[] = "gateway_float_";
  static constexpr char description[] = "generated gateway float";
};

// Makes the slots of the four engine lists, all zero, in the order string, int, uint, float. The
// table's counts stay 0. `*offsets` changes as the list grows.
void buildEngineSlots(const ConfigManager& config, GatewaySlotTable& table,
                      sonalith_moduleOffsetList** offsets);

// Makes the slots of one meter list, set to their default values, and stores their count. T is
// std::string, int32_t, uint32_t or float.
template <class T>
void buildMeterSlots(const std::vector<MeterEntry<T>>& entries, GatewaySlotTable& table,
                     sonalith_moduleOffsetList** offsets);

// Returns a table's arrays to the host, group by group, names before values. Leaves the table's
// pointers dangling, as the caller frees the table next.
void releaseSlots(const GatewaySlotTable& table);

}  // namespace gateway
