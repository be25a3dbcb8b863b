// Copies and compares short texts, for the private copies of lists. A message or a notification
// does so thousands of times, and most texts are too short to be worth a call to memcpy.
//
// Up to 32 bytes are handled as two pieces of one fixed size that may overlap. Together they cover
// every byte of the text and touch none beyond it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace gateway {

// Sixteen bytes side by side. g++ and clang++ accept such types for any processor.
using SixteenBytes = std::uint64_t __attribute__((vector_size(16)));

template <class Piece>
Piece loadPiece(const char* bytes) {
  Piece piece;
  std::memcpy(&piece, bytes, sizeof piece);
  return piece;
}

// Copies the first and the last piece of a text that is one to two pieces long.
template <class Piece>
void copyEnds(char* to, const char* from, std::size_t size) {
  const std::size_t last = size - sizeof(Piece);
  const Piece end = loadPiece<Piece>(from + last);
  std::memcpy(to, from, sizeof(Piece));
  std::memcpy(to + last, &end, sizeof end);
}

template <class Piece>
bool sameEnds(const char* a, const char* b, std::size_t size) {
  const std::size_t last = size - sizeof(Piece);
  return ((loadPiece<Piece>(a) ^ loadPiece<Piece>(b)) |
          (loadPiece<Piece>(a + last) ^ loadPiece<Piece>(b + last))) == 0;
}

inline void copyText(char* to, const char* from, std::size_t size) {
  if (size > 32) {
    std::memcpy(to, from, size);
  } else if (size >= 16) {
    copyEnds<SixteenBytes>(to, from, size);
  } else if (size >= 8) {
    copyEnds<std::uint64_t>(to, from, size);
  } else if (size >= 4) {
    copyEnds<std::uint32_t>(to, from, size);
  } else {
    for (std::size_t i = 0; i < size; ++i) to[i] = from[i];
  }
}

inline bool sameText(const char* a, const char* b, std::size_t size) {
  if (size > 16) return std::memcmp(a, b, size) == 0;
  if (size >= 8) return sameEnds<std::uint64_t>(a, b, size);
  if (size >= 4) return sameEnds<std::uint32_t>(a, b, size);
  for (std::size_t i = 0; i < size; ++i) {
    if (a[i] != b[i]) return false;
  }
  return true;
}

}  // namespace gateway
