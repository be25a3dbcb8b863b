// The configuration of one module instance, read from its one INI file.
//
// Threads: built once, when the module starts, and never written again. From then on any thread
// reads it without a lock.
// Ownership: it owns all of its records and strings. Readers share it; the last one frees it.
// Errors: a bad configuration is logged and leaves `valid` false. The constructor throws only when
// an allocation fails.
#pragma once

#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

#include "module/grpc-gateway/ValueType.h"

namespace gateway {

// The rate of a meter. The numbers match MeterType on the wire.
enum class MeterEntryType : std::uint32_t { Slow = 0, Fast = 1 };

// One meter to receive. T is the type of its value: std::string, int32_t, uint32_t or float.
template <class T>
struct MeterEntry {
  std::string key;        // its name on the stream
  std::string customKey;  // its slot's name, at most 99 bytes; empty for a generated name
  MeterEntryType type = MeterEntryType::Fast;
  T defaultValue{};  // what the slot holds until a value arrives
};

// One parameter to send. The list that holds it determines its value type.
struct EngineEntry {
  std::string key;        // its name at the engine service
  std::string customKey;  // its slot's name, as above
};

// Lists keep the order of the file; the lines of a dedicated file stand where the file is named. An
// entry's position in its list is the index of its slot, so nothing may sort, merge or prune a
// list.
class ConfigManager {
 public:
  // Reads and verifies the file; an empty path means "/etc/sonalith/grpc-gateway.conf".
  explicit ConfigManager(const std::string& path);

  // gRPC targets such as "localhost:50005". An empty target switches its side off.
  std::string metersTarget;
  bool enableFastMeters = true;
  bool enableSlowMeters = true;
  std::string engineTarget;

  std::vector<MeterEntry<std::string>> slowMeterStrings;
  std::vector<MeterEntry<std::int32_t>> slowMeterInts;
  std::vector<MeterEntry<std::uint32_t>> slowMeterUints;
  std::vector<MeterEntry<float>> slowMeterFloats;
  std::vector<MeterEntry<std::string>> fastMeterStrings;
  std::vector<MeterEntry<std::int32_t>> fastMeterInts;
  std::vector<MeterEntry<std::uint32_t>> fastMeterUints;
  std::vector<MeterEntry<float>> fastMeterFloats;
  std::vector<EngineEntry> engineStrings;
  std::vector<EngineEntry> engineInts;
  std::vector<EngineEntry> engineUints;
  std::vector<EngineEntry> engineFloats;

  // Whether every line was good and the configuration is sound; the module refuses to start
  // otherwise. When true, every key is non-empty and unique in its list, and every customKey fits
  // its slot. There is a meters target exactly when a rate is enabled, and without one there are no
  // meters. Without an engine target there are no parameters.
  bool valid = true;
};

// The lists of one value type: T is std::string, int32_t, uint32_t or float.
template <class T>
struct ListsOf;

template <>
struct ListsOf<std::string> {
  static constexpr ValueType type = ValueType::String;
  static constexpr auto slowMeters = &ConfigManager::slowMeterStrings;
  static constexpr auto fastMeters = &ConfigManager::fastMeterStrings;
  static constexpr auto params = &ConfigManager::engineStrings;
};

template <>
struct ListsOf<std::int32_t> {
  static constexpr ValueType type = ValueType::Int;
  static constexpr auto slowMeters = &ConfigManager::slowMeterInts;
  static constexpr auto fastMeters = &ConfigManager::fastMeterInts;
  static constexpr auto params = &ConfigManager::engineInts;
};

template <>
struct ListsOf<std::uint32_t> {
  static constexpr ValueType type = ValueType::Uint;
  static constexpr auto slowMeters = &ConfigManager::slowMeterUints;
  static constexpr auto fastMeters = &ConfigManager::fastMeterUints;
  static constexpr auto params = &ConfigManager::engineUints;
};

template <>
struct ListsOf<float> {
  static constexpr ValueType type = ValueType::Float;
  static constexpr auto slowMeters = &ConfigManager::slowMeterFloats;
  static constexpr auto fastMeters = &ConfigManager::fastMeterFloats;
  static constexpr auto params = &ConfigManager::engineFloats;
};

template <class T>
const std::vector<MeterEntry<T>>& metersOf(const ConfigManager& config, MeterEntryType rate) {
  using Lists = ListsOf<T>;
  return rate == MeterEntryType::Slow ? config.*Lists::slowMeters : config.*Lists::fastMeters;
}

// Calls visit.operator()<T>() for each value type, in the order in which lists are verified and
// slots are made: string, int, uint, float. Stops at the first visit that returns false; a visit
// that returns nothing never stops it. Returns false if a visit did.
template <class Visit>
constexpr bool visitValueTypes(Visit visit) {
  const auto visitOne = [&]<class T>() {
    if constexpr (std::is_void_v<decltype(visit.template operator()<T>())>) {
      visit.template operator()<T>();
      return true;
    } else {
      return visit.template operator()<T>();
    }
  };
  return visitOne.template operator()<std::string>() &&
         visitOne.template operator()<std::int32_t>() &&
         visitOne.template operator()<std::uint32_t>() && visitOne.template operator()<float>();
}

// Likewise for the four meter lists of a rate: calls visit(list).
template <class Visit>
bool visitMeters(const ConfigManager& config, MeterEntryType rate, Visit visit) {
  return visitValueTypes([&]<class T>() { return visit(metersOf<T>(config, rate)); });
}

// Likewise for the four parameter lists: calls visit.operator()<T>(list).
template <class Visit>
bool visitParams(const ConfigManager& config, Visit visit) {
  return visitValueTypes(
      [&]<class T>() { return visit.template operator()<T>(config.*ListsOf<T>::params); });
}

}  // namespace gateway
