// Tags of keys, and the scan of a list of tags for one of them.
//
// A tag is a hash of the length and of all bytes of a key, so that it does not matter where a
// site's keys differ. Equal keys have equal tags, and so has one pair in 65,536 of unequal keys. A
// list of keys can thus be searched in order: scan its tags, many at a time, and compare only the
// keys whose tags agree.
//
// Any thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "module/grpc-gateway/TextBlock.h"

namespace gateway {

using KeyTag = std::uint16_t;

// A scan reads whole steps, so a list of tags needs memory for a multiple of this number. Whatever
// stands after its last tag does not matter.
constexpr std::size_t tagsPerStep = 64;

// Returns the position of the first tag at or after `from` that equals `tag`. If that would be at
// or after `end`, it may return any position there.
using TagScan = std::size_t (*)(const KeyTag* tags, std::size_t from, std::size_t end, KeyTag tag);

// The one with the widest vectors that this processor has, chosen once, before main or when the
// module is loaded.
extern const TagScan scanTags;

// From portable code, which judges the others, to the widest vectors. Null for those that this
// processor can't run.
std::array<TagScan, 3> tagScans();

// The folded product of two words: every bit of either affects about half of the result's bits.
inline std::uint64_t foldedProduct(std::uint64_t a, std::uint64_t b) {
#ifdef __SIZEOF_INT128__
  __extension__ using Wide = unsigned __int128;
  const Wide product = static_cast<Wide>(a) * b;
  return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
#else
  const std::uint64_t product = (a ^ (b << 32 | b >> 32)) * 0x9e3779b97f4a7c15u;
  return product ^ product >> 32;
#endif
}

// The bytes of a key under eight bytes in one word. Some may be in it twice.
inline std::uint64_t wordOfShort(const char* key, std::size_t size) {
  if (size >= 4) {
    return std::uint64_t{loadPiece<std::uint32_t>(key)} << 32 |
           loadPiece<std::uint32_t>(key + size - 4);
  }
  if (size == 0) return 0;
  const auto byte = [&](std::size_t i) {
    return std::uint64_t{static_cast<unsigned char>(key[i])};
  };
  return byte(0) << 16 | byte(size / 2) << 8 | byte(size - 1);
}

// Arbitrary words without a pattern: the first digits of pi.
constexpr std::array<std::uint64_t, 3> arbitraryWords{0x243f6a8885a308d3u, 0x13198a2e03707344u,
                                                      0xa4093822299f31d0u};

// A hash of the bytes from `begin` to `end`, without the last one to sixteen. In a function of its
// own, the compiler has enough registers for the loop.
std::uint64_t hashOfFirstBytes(const char* begin, const char* end);

inline KeyTag tagOf(std::string_view key) {
  const char* const begin = key.data();
  const char* const end = begin + key.size();
  const auto load = loadPiece<std::uint64_t>;
  std::uint64_t hash = arbitraryWords[1] ^ key.size();
  if (key.size() < 8) {
    hash = foldedProduct(wordOfShort(begin, key.size()) ^ arbitraryWords[0], hash);
  } else {
    // The last pair of words may overlap the pair before it, or itself.
    if (key.size() > 16) hash += hashOfFirstBytes(begin, end);
    const char* const last = key.size() < 16 ? begin : end - 16;
    hash = foldedProduct(load(last) ^ arbitraryWords[0], load(end - 8) ^ hash);
  }
  return static_cast<KeyTag>(hash >> 32);
}

}  // namespace gateway
