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

inline bool isZero(std::uint64_t piece) {
  return piece == 0;
}
inline bool isZero(SixteenBytes piece) {
  return (piece[0] | piece[1]) == 0;
}

template <class Piece>
bool sameEnds(const char* a, const char* b, std::size_t size) {
  const std::size_t last = size - sizeof(Piece);
  return isZero((loadPiece<Piece>(a) ^ loadPiece<Piece>(b)) |
                (loadPiece<Piece>(a + last) ^ loadPiece<Piece>(b + last)));
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
  } else if (size > 0) {
    // The first, the middle and the last byte are all of one to three bytes.
    const char middle = from[size / 2];
    const char last = from[size - 1];
    to[0] = from[0];
    to[size / 2] = middle;
    to[size - 1] = last;
  }
}

inline bool sameText(const char* a, const char* b, std::size_t size) {
  if (size > 32) return std::memcmp(a, b, size) == 0;
  if (size >= 16) return sameEnds<SixteenBytes>(a, b, size);
  if (size >= 8) return sameEnds<std::uint64_t>(a, b, size);
  if (size >= 4) return sameEnds<std::uint32_t>(a, b, size);
  return size == 0 || (a[0] == b[0] && a[size / 2] == b[size / 2] && a[size - 1] == b[size - 1]);
}

}  // namespace gateway
