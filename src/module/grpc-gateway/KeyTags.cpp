#include "module/grpc-gateway/KeyTags.h"

#include <bit>
#include <cstring>
#ifdef __x86_64__
#include <immintrin.h>
#endif

namespace gateway {
namespace {

// Tags side by side. g++ and clang++ accept such types for any processor and compare them with one
// instruction where it has one.
using Tags = KeyTag __attribute__((vector_size(16)));
constexpr std::size_t tagsAtOnce = sizeof(Tags) / sizeof(KeyTag);

// Whether one of `count` tags, a multiple of tagsAtOnce, equals `tag`.
inline bool anyEquals(const KeyTag* tags, std::size_t count, KeyTag tag) {
  const Tags wanted = Tags{} + tag;
  Tags found{};
  for (std::size_t i = 0; i < count; i += tagsAtOnce) {
    Tags some;
    std::memcpy(&some, tags + i, sizeof some);
    found |= reinterpret_cast<Tags>(some == wanted);
  }
  const auto halves = reinterpret_cast<SixteenBytes>(found);
  return (halves[0] | halves[1]) != 0;
}

std::size_t scanPortably(const KeyTag* tags, std::size_t from, std::size_t end, KeyTag tag) {
  const auto isAtStartOf = [&](std::size_t count) { return from % count == 0; };
  while (from < end) {
    if (isAtStartOf(tagsPerStep) && !anyEquals(tags + from, tagsPerStep, tag)) {
      from += tagsPerStep;
    } else if (isAtStartOf(tagsAtOnce) && !anyEquals(tags + from, tagsAtOnce, tag)) {
      from += tagsAtOnce;
    } else if (tags[from] == tag) {
      return from;
    } else {
      ++from;
    }
  }
  return end;
}

#ifdef __x86_64__

// Clears the bits of positions before `from`, in the mask of the step that holds it.
std::uint64_t fromOn(std::uint64_t mask, std::size_t from) {
  return mask & ~std::uint64_t{0} << from % tagsPerStep;
}

// One bit for each of the sixteen words of `a`, and then of `b`, which are all ones or all zeros.
[[gnu::target("avx2")]] inline std::uint32_t bitsOf(__m256i a, __m256i b) {
  constexpr int inOrder = 0b11'01'10'00;  // packing interleaves the halves
  const __m256i bytes = _mm256_permute4x64_epi64(_mm256_packs_epi16(a, b), inOrder);
  return static_cast<std::uint32_t>(_mm256_movemask_epi8(bytes));
}

[[gnu::target("avx2")]] std::size_t scanWithAvx2(const KeyTag* tags, std::size_t from,
                                                 std::size_t end, KeyTag tag) {
  const __m256i wanted = _mm256_set1_epi16(static_cast<short>(tag));
  for (std::size_t step = from / tagsPerStep * tagsPerStep; step < end; step += tagsPerStep) {
    const auto* at = reinterpret_cast<const __m256i*>(tags + step);
    const __m256i a = _mm256_cmpeq_epi16(_mm256_loadu_si256(at), wanted);
    const __m256i b = _mm256_cmpeq_epi16(_mm256_loadu_si256(at + 1), wanted);
    const __m256i c = _mm256_cmpeq_epi16(_mm256_loadu_si256(at + 2), wanted);
    const __m256i d = _mm256_cmpeq_epi16(_mm256_loadu_si256(at + 3), wanted);
    const __m256i any = _mm256_or_si256(_mm256_or_si256(a, b), _mm256_or_si256(c, d));
    if (_mm256_testz_si256(any, any) != 0) continue;
    std::uint64_t mask = std::uint64_t{bitsOf(c, d)} << 32 | bitsOf(a, b);
    if (step < from) mask = fromOn(mask, from);
    if (mask != 0) return step + static_cast<std::size_t>(std::countr_zero(mask));
  }
  return end;
}

[[gnu::target("avx512bw")]] std::size_t scanWithAvx512(const KeyTag* tags, std::size_t from,
                                                       std::size_t end, KeyTag tag) {
  const __m512i wanted = _mm512_set1_epi16(static_cast<short>(tag));
  for (std::size_t step = from / tagsPerStep * tagsPerStep; step < end; step += tagsPerStep) {
    const __mmask32 low = _mm512_cmpeq_epi16_mask(_mm512_loadu_si512(tags + step), wanted);
    const __mmask32 high = _mm512_cmpeq_epi16_mask(_mm512_loadu_si512(tags + step + 32), wanted);
    std::uint64_t mask = std::uint64_t{high} << 32 | low;
    if (mask == 0) continue;
    if (step < from) mask = fromOn(mask, from);
    if (mask != 0) return step + static_cast<std::size_t>(std::countr_zero(mask));
  }
  return end;
}

#endif

TagScan widest() {
  TagScan widest = nullptr;
  for (const TagScan scan : tagScans()) widest = scan != nullptr ? scan : widest;
  return widest;
}

}  // namespace

std::array<TagScan, 3> tagScans() {
  std::array<TagScan, 3> scans{scanPortably};
#ifdef __x86_64__
  if (__builtin_cpu_supports("avx2")) scans[1] = scanWithAvx2;
  if (__builtin_cpu_supports("avx512bw")) scans[2] = scanWithAvx512;
#endif
  return scans;
}

const TagScan scanTags = widest();

// The products don't depend on each other, so the processor works on several at once. Each depends
// on its position, so the order of the words matters.
std::uint64_t hashOfFirstBytes(const char* begin, const char* end) {
  const auto load = loadPiece<std::uint64_t>;
  std::uint64_t hash = 0;
  std::uint64_t place = arbitraryWords[1];
  for (const char* at = begin; end - at > 16; at += 16) {
    hash += foldedProduct(load(at) ^ arbitraryWords[0], load(at + 8) ^ place);
    place += arbitraryWords[2];
  }
  return hash;
}

}  // namespace gateway
