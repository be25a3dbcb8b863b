// What is left to chance. A draw depends only on the seed and on what it is about, such as "loss of
// fast 1 17": so a seed strikes the same messages and calls in every run, whatever their timing.
//
// Any thread.
#pragma once

#include <chrono>
#include <cmath>
#include <cstdint>
#include <string>
#include <string_view>

#include "tools/sim/Random.h"

namespace sim {

struct Range {
  double least = 0;
  double most = 0;

  bool operator==(const Range&) const = default;
};

// Something happens with this chance, from 0 to 1.
inline bool happens(double chance, std::string_view about, std::uint64_t seed) {
  return chance >= 1 || drawFor(about, seed) < chance;
}

// How late messages or answers are sent.
struct Delay {
  Range seconds;
  double chance = 1;  // of each message or answer to be late

  std::chrono::nanoseconds of(const std::string& what, std::uint64_t seed) const {
    if (!happens(chance, "chance of " + what, seed)) return {};
    const double part = drawFor("delay of " + what, seed);
    const std::chrono::duration<double> late(seconds.least + part * (seconds.most - seconds.least));
    return std::chrono::ceil<std::chrono::nanoseconds>(late);
  }
};

// How a stream loses messages.
struct Loss {
  Range burst{1, 1};  // how many messages in a row; whole numbers
  double chance = 1;  // of each message to begin a burst

  // The length of the burst that this message begins, or 0 if it begins none.
  std::uint64_t burstFrom(const std::string& what, std::uint64_t seed) const {
    if (!happens(chance, "loss of " + what, seed)) return 0;
    const double lengths = burst.most - burst.least + 1;
    const double drawn = std::floor(drawFor("burst of " + what, seed) * lengths);
    return static_cast<std::uint64_t>(burst.least + drawn);
  }
};

}  // namespace sim
