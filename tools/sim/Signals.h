// What plays on the meter streams: for each key a signal that moves as a live value of its type
// would. A signal depends only on the seed, the key with its rate and type, and the time. So a run
// can be repeated, and two keys rarely show the same values.
//
// | type   | signal                                                                       |
// |--------|------------------------------------------------------------------------------|
// | float  | a level in dB that rises and falls between -60 and 0                          |
// | int    | a counter that rises by 5 to 20 per second and returns to 0 after 999999      |
// | uint   | a state: 0, 1, 2 and 3 in turn, each for 0.5 to 1.5 seconds                   |
// | string | a state: "ready", "running" and "muted" in turn, each for 0.5 to 1.5 seconds  |
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
// int, uint or float, and KEY is everything after the second colon, colons and spaces included.
struct KeySpec {
  Method rate;
  ValueType type;
  std::string key;

  bool operator==(const KeySpec&) const = default;
};

// Throws std::invalid_argument, which names the wrong word and says what to write instead.
KeySpec parseKeySpec(std::string_view text);

// Immutable: any thread.
class Signals {
 public:
  static constexpr std::size_t unlimited = std::numeric_limits<std::size_t>::max();

  Signals(const std::vector<KeySpec>& keys, std::uint64_t seed);

  // The bytes of a Meter with the values of all keys of `rate`, in the order of `keys`, at
  // `seconds` (not negative) after the start. Without keys it is an empty Meter.
  std::string meterAt(Method rate, double seconds) const;

  // The same, as several Meters if it takes more than `most` values (at least one).
  std::vector<std::string> metersAt(Method rate, double seconds, std::size_t most) const;

 private:
  // The numbers are in [0, 1) and make one key's signal differ from another's.
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
