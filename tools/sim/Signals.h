// What plays on the meter streams: for each key a signal that moves as a live value of its type
// would. Signals depend on nothing but the seed, the key, its type and the time, so that a run can
// be repeated, and two keys hardly ever show the same.
//
// | type   | signal                                                                            |
// |--------|-----------------------------------------------------------------------------------|
// | float  | a level in dB that rises and falls between -60 and 0                               |
// | int    | a counter, 5 to 20 steps up per second, that begins again at 0 after 999999        |
// | uint   | a state, 0 to 3 in turn, each for 0.5 to 1.5 seconds                               |
// | string | a state, "ready", "running" and "muted" in turn, each for 0.5 to 1.5 seconds       |
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include "module/grpc-gateway/ValueType.h"
#include "tools/sim/Simulator.h"

namespace sonalith::grpc {
class Meter;
}

namespace sim {

using gateway::ValueType;

// A key that plays, as users write it: RATE:TYPE:KEY, where RATE is fast or slow, TYPE is string,
// int, uint or float, and KEY is all the rest, colons and spaces included.
struct KeySpec {
  Method rate;
  ValueType type;
  std::string key;

  bool operator==(const KeySpec&) const = default;
};

// Throws std::invalid_argument, naming the word that is wrong and what would be right.
KeySpec parseKeySpec(std::string_view text);

// Never changes once built: any thread.
class Signals {
 public:
  static constexpr std::size_t unlimited = std::numeric_limits<std::size_t>::max();

  Signals(const std::vector<KeySpec>& keys, std::uint64_t seed);

  // The bytes of a Meter with the values of all keys of `rate` in the order of their naming, as
  // they are `seconds` (not negative) after the beginning. Without keys it is an empty Meter.
  std::string meterAt(Method rate, double seconds) const;

  // The same as as many Meters as it takes if none holds more than `most` values (at least one).
  std::vector<std::string> metersAt(Method rate, double seconds, std::size_t most) const;

 private:
  // Each number is in [0, 1) and makes one key's signal differ from another's.
  struct Signal {
    KeySpec played;
    double phase;
    double pace;
    double offset;
  };

  static void addValue(sonalith::grpc::Meter& meter, const Signal& signal, double seconds);

  std::vector<Signal> signals_;
};

}  // namespace sim
