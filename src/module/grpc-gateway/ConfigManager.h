// The configuration of one module instance, as its one INI file gives it.
//
// Built once, at the start of the module, and never written again: from then on any thread reads it
// without a lock. It owns all of its records and strings. Readers share it; it dies with the last
// of them.
//
// A bad configuration does not throw: it is logged, and `valid` is false in the end. Only failed
// allocations leave the constructor as exceptions.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace gateway {

// Rate of a meter. The numbers are those of the wire's MeterType.
enum class MeterEntryType : std::uint32_t { Slow = 0, Fast = 1 };

// One meter to receive. T is the type of its value: std::string, int32_t, uint32_t or float.
template <class T>
struct MeterEntry {
  std::string key;        // its name on the stream
  std::string customKey;  // name of its slot, at most 99 bytes; empty for a generated one
  MeterEntryType type = MeterEntryType::Fast;
  T defaultValue{};  // what the slot holds until a value arrives
};

// One parameter to send. Its value type is that of the list that holds it.
struct EngineEntry {
  std::string key;        // its name at the engine service
  std::string customKey;  // name of its slot, as above
};

// The lists are in file order, the lines of a dedicated file standing where it was named. The
// position of an entry in its list is the index of its slot, so nothing may sort, merge or thin out
// a list.
class ConfigManager {
 public:
  // Reads and verifies the file; an empty path means "/etc/sonalith/grpc-gateway.conf".
  explicit ConfigManager(const std::string& path);

  // gRPC targets such as "localhost:50005"; an empty one switches its side off.
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

  // Whether every line was good and the whole is sound. The module does not start without it.
  // If true: every key is non-empty and unique in its list, every customKey fits its slot, and each
  // target is there if and only if something needs it.
  bool valid = true;
};

}  // namespace gateway
