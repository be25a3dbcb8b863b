// Servers of both services that use other libraries than ours and take the simulator's commands;
// and values to try them with. They need what scripts/setup installs.
#pragma once

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "tests/support/SimProcess.h"

namespace peers {

// The part of the table that has all rows of these proofs.
constexpr char heading[] = "Peers on other implementations";

struct Peer {
  std::string name;     // in the names of tests
  std::string library;  // in rows
  ServerProgram program;
};

// For GoogleTest's messages.
inline void PrintTo(const Peer& peer, std::ostream* out) {
  *out << peer.library;
}

inline Peer simulator() {
  return {"Simulator", "gatewayctl sim (gRPC C++)", {}};
}
// gRPC written in JavaScript, on Node's HTTP/2, with messages by protobufjs.
inline Peer node() {
  return {"Node", "grpc-js", {PEERS_FOLDER "/obey.js", {}}};
}
// gRPC's C core, which we use as well, with calls and messages handled in Python.
inline Peer python() {
  return {"Python", "grpcio", {PEERS_FOLDER "/obey.py", {}}};
}

inline std::vector<Peer> all() {
  return {simulator(), node(), python()};
}

// One value of each type that the gateway carries.
struct Sample {
  std::string text;
  std::int32_t integer = 0;
  std::uint32_t natural = 0;
  float number = 0;
};

// The values that encodings and conversions are most likely to get wrong.
inline std::vector<Sample> extremeSamples() {
  using Int = std::numeric_limits<std::int32_t>;
  using Uint = std::numeric_limits<std::uint32_t>;
  using Float = std::numeric_limits<float>;
  return {
      {"", 0, 0, 0.0f},
      {"a", -1, 1, -0.0f},
      {std::string(99, 'x'), Int::max(), Uint::max(), Float::max()},
      {"\xC2\x80\xDF\xBF", Int::min(), 1u << 31, Float::lowest()},
      {"\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBD", 127, 127, Float::min()},
      {"\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", 128, 128, Float::denorm_min()},
      {" quoted \"text\" \\ with\ttab\nand line ", -128, 16384, -Float::denorm_min()},
      {"%s %n {} ${x} `x` ;#", -2097152, 2097151, Float::infinity()},
      {"\xEF\xBB\xBF", 268435455, 268435456, -Float::infinity()},
      {"z", 16777217, 4294967294u, 0.1f},
      {"nan", Int::min() + 1, 16777217, Float::quiet_NaN()},
  };
}

using Random = std::mt19937_64;

// A text of up to `most` bytes of UTF-8, of characters of one to four bytes, without NUL.
inline std::string randomText(Random& random, std::size_t most) {
  const std::size_t length = random() % (most + 1);
  std::string text;
  for (;;) {
    const unsigned bits = 7 + 4 * (random() % 4) + (random() % 2);
    char32_t letter = 1 + static_cast<char32_t>(random() % ((1u << bits) - 1));
    if (letter > 0x10FFFF || (letter >= 0xD800 && letter <= 0xDFFF)) letter = U'\u20AC';
    std::string bytes;
    const auto add = [&](unsigned first, int shift) {
      bytes += static_cast<char>(first | (letter >> shift));
      while ((shift -= 6) >= 0) bytes += static_cast<char>(0x80 | ((letter >> shift) & 0x3F));
    };
    if (letter < 0x80)
      add(0, 0);
    else if (letter < 0x800)
      add(0xC0, 6);
    else if (letter < 0x10000)
      add(0xE0, 12);
    else
      add(0xF0, 18);
    if (text.size() + bytes.size() > length) return text;
    text += bytes;
  }
}

// A float of any bit pattern, but only one kind of NaN, since JavaScript has only one.
inline float randomFloat(Random& random) {
  const auto number = std::bit_cast<float>(static_cast<std::uint32_t>(random()));
  return std::isnan(number) ? std::numeric_limits<float>::quiet_NaN() : number;
}

inline Sample randomSample(Random& random) {
  return {randomText(random, 99), static_cast<std::int32_t>(random()),
          static_cast<std::uint32_t>(random()), randomFloat(random)};
}

}  // namespace peers
