// The slots of the module: one named, typed value for each entry of the configuration, described to
// the host in an offset list.
//
// Slots are made at the start of the module, on its thread, and none is added or removed later. All
// memory comes from the host's sonalith_calloc, one array for a group's values and one for its
// names; the caller owns the table and gives the arrays back with releaseSlots.
//
// Engine slots belong to the host once they are made. Meter slots are written by one thread and
// read by the host at any time, without a lock.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "host/sonalith.h"
#include "module/grpc-gateway/ConfigManager.h"

namespace gateway {

// What the slots of one value type have in common: the fields of the table that hold them, their
// codes, and the beginning of a generated name, which ends in the entry's position.
template <class T>
struct GatewaySlotGroup;

template <>
struct GatewaySlotGroup<std::string> {
  static constexpr auto count = &GatewaySlotTable::stringCount;
  static constexpr auto names = &GatewaySlotTable::stringNames;
  static constexpr auto values = &GatewaySlotTable::stringValues;
  static constexpr std::uint32_t valueType = SONALITH_SLOT_STRING;
  static constexpr char namePrefix[] = "gateway_string_";
  static constexpr char description[] = "generated gateway string";
};

template <>
struct GatewaySlotGroup<std::int32_t> {
  static constexpr auto count = &GatewaySlotTable::intCount;
  static constexpr auto names = &GatewaySlotTable::intNames;
  static constexpr auto values = &GatewaySlotTable::intValues;
  static constexpr std::uint32_t valueType = SONALITH_SLOT_INT;
  static constexpr char namePrefix[] = "gateway_int_";
  static constexpr char description[] = "generated gateway int";
};

template <>
struct GatewaySlotGroup<std::uint32_t> {
  static constexpr auto count = &GatewaySlotTable::uintCount;
  static constexpr auto names = &GatewaySlotTable::uintNames;
  static constexpr auto values = &GatewaySlotTable::uintValues;
  static constexpr std::uint32_t valueType = SONALITH_SLOT_UINT;
  static constexpr char namePrefix[] = "gateway_uint_";
  static constexpr char description[] = "generated gateway uint";
};

template <>
struct GatewaySlotGroup<float> {
  static constexpr auto count = &GatewaySlotTable::floatCount;
  static constexpr auto names = &GatewaySlotTable::floatNames;
  static constexpr auto values = &GatewaySlotTable::floatValues;
  static constexpr std::uint32_t valueType = SONALITH_SLOT_FLOAT;
  static constexpr char namePrefix[] = "gateway_float_";
  static constexpr char description[] = "generated gateway float";
};

// Makes the slots of the four engine lists, all zero, in the order string, int, uint, float. The
// counts of the table stay 0. `*offsets` is replaced as the list grows.
void buildEngineSlots(const ConfigManager& config, GatewaySlotTable& table,
                      sonalith_moduleOffsetList** offsets);

// Makes the slots of one list of meters, holding their default values, and stores their count. T is
// std::string, int32_t, uint32_t or float.
template <class T>
void buildMeterSlots(const std::vector<MeterEntry<T>>& entries, GatewaySlotTable& table,
                     sonalith_moduleOffsetList** offsets);

// Gives the arrays of a table back to the host, group by group, names before values. The table's
// pointers are left dangling: it goes next.
void releaseSlots(const GatewaySlotTable& table);

}  // namespace gateway
