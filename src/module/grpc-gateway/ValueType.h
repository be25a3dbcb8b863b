// The value types that a configuration can give a slot, in one table for the module and its tools.
// To add a type, add an enumerator and a row; the compiler then names the places that need it.
//
// Any thread; everything here is constant.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "host/sonalith.h"

namespace gateway {

// The numbers are the slot codes of the boundary.
enum class ValueType : std::uint32_t {
  String = SONALITH_SLOT_STRING,
  Int = SONALITH_SLOT_INT,
  Uint = SONALITH_SLOT_UINT,
  Float = SONALITH_SLOT_FLOAT,
};

struct ValueTypeRow {
  ValueType type;
  const char* name;          // for people
  const char* meterSection;  // of the configuration file
  const char* paramSection;
};

// In the order in which lists are verified and slots are made.
inline constexpr std::array<ValueTypeRow, 4> valueTypes{{
    {ValueType::String, "string", "MetersString", "EngineString"},
    {ValueType::Int, "int", "MetersInt", "EngineInt"},
    {ValueType::Uint, "uint", "MetersUint", "EngineUint"},
    {ValueType::Float, "float", "MetersFloat", "EngineFloat"},
}};

// Its place in the table.
constexpr std::size_t indexOf(ValueType type) {
  switch (type) {
    case ValueType::String:
      return 0;
    case ValueType::Int:
      return 1;
    case ValueType::Uint:
      return 2;
    case ValueType::Float:
      break;
  }
  return 3;
}

constexpr const ValueTypeRow& rowOf(ValueType type) {
  return valueTypes[indexOf(type)];
}

constexpr const char* nameOf(ValueType type) {
  return rowOf(type).name;
}

static_assert(rowOf(ValueType::String).type == ValueType::String);
static_assert(rowOf(ValueType::Int).type == ValueType::Int);
static_assert(rowOf(ValueType::Uint).type == ValueType::Uint);
static_assert(rowOf(ValueType::Float).type == ValueType::Float);

}  // namespace gateway
