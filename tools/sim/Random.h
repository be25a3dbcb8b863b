// Random numbers from a seed, the same on every machine. The standard's own hash and distributions
// differ between libraries. Any thread, each with an engine of its own.
#pragma once

#include <cstdint>
#include <random>
#include <string_view>

namespace sim {

// FNV-1a, continued from `hash`.
inline std::uint64_t hashOf(std::string_view text, std::uint64_t hash) {
  for (const char character : text) {
    hash = (hash ^ static_cast<unsigned char>(character)) * 0x100000001b3;
  }
  return hash;
}

// In [0, 1).
inline double drawFrom(std::mt19937_64& random) {
  return static_cast<double>(random() >> 11) * 0x1p-53;
}

// In [0, 1), by the seed and what the number is for alone.
inline double drawFor(std::string_view what, std::uint64_t seed) {
  std::mt19937_64 random(hashOf(what, seed));
  return drawFrom(random);
}

}  // namespace sim
