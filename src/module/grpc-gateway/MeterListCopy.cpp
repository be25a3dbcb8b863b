#include "module/grpc-gateway/MeterListCopy.h"

#include <cstring>
#include <string>
#include <type_traits>

#include "module/grpc-gateway/TextBlock.h"

namespace gateway {
namespace {

// Words compared in one step of the scan.
constexpr std::size_t scanStep = 16;

constexpr std::size_t roundUp(std::size_t count) {
  return (count + scanStep - 1) / scanStep * scanStep;
}

// Keeps the low half of each byte. Those halves tell all digits and most letters apart.
constexpr std::uint32_t lowHalves = 0x0f0f0f0fu;

// Packs the low halves of eight bytes of a key into a word, from where the keys of one server tend
// to differ: the last three bytes, three in the middle, and the third and fourth.
std::uint32_t pieces(const char* key, std::size_t size) {
  const std::uint32_t end = loadPiece<std::uint32_t>(key + size - 4) & lowHalves;
  const std::uint32_t middle = loadPiece<std::uint32_t>(key + size / 2 - 2) & lowHalves;
  const std::uint32_t begin = loadPiece<std::uint32_t>(key) & lowHalves;
  return (end >> 8) | (middle >> 8 << 4) | (begin >> 16 & 0xf) << 24 | (begin >> 24) << 28;
}

// For keys under eight bytes: all of the key, or the low halves of its bytes.
std::uint32_t piecesOfShort(const char* key, std::size_t size) {
  if (size > 4) {
    return (loadPiece<std::uint32_t>(key) & lowHalves) |
           (loadPiece<std::uint32_t>(key + size - 4) & lowHalves) << 4;
  }
  std::uint32_t word = 0;
  copyText(reinterpret_cast<char*>(&word), key, size);
  return word;
}

std::uint32_t scanWord(std::string_view key) {
  return key.size() < 8 ? piecesOfShort(key.data(), key.size()) : pieces(key.data(), key.size());
}

// Four words side by side. g++ and clang++ accept such types for any processor and compare them
// with one instruction where it has one.
using Words = std::uint32_t __attribute__((vector_size(16)));
constexpr std::size_t wordsAtOnce = sizeof(Words) / sizeof(std::uint32_t);
static_assert(scanStep % wordsAtOnce == 0, "a step must hold whole vectors");

bool anyEqual(const std::uint32_t* words, std::uint32_t word) {
  const Words wanted = Words{} + word;
  Words found{};
  for (std::size_t i = 0; i < scanStep; i += wordsAtOnce) {
    Words some;
    std::memcpy(&some, words + i, sizeof some);
    found |= reinterpret_cast<Words>(some == wanted);
  }
  const auto halves = reinterpret_cast<SixteenBytes>(found);
  return (halves[0] | halves[1]) != 0;
}

std::string_view bytesOf(const std::string& value) {
  return value;
}

template <class T>
std::string_view bytesOf(const T& value) {
  static_assert(std::is_arithmetic_v<T>);
  return {reinterpret_cast<const char*>(&value), sizeof(value)};
}

}  // namespace

// Writes texts to the block, one after another.
class MeterListCopy::Writer {
 public:
  Writer(std::byte* block, std::size_t offset)
      : block_(reinterpret_cast<char*>(block)), offset_(offset) {}

  Text put(std::string_view text) {
    const Text stored{static_cast<std::uint32_t>(offset_), static_cast<std::uint32_t>(text.size())};
    copyText(block_ + offset_, text.data(), text.size());
    offset_ += text.size();
    return stored;
  }

 private:
  char* block_;
  std::size_t offset_;
};

template <class T>
MeterListCopy::MeterListCopy(const std::vector<MeterEntry<T>>& entries) : size_(entries.size()) {
  if (entries.empty()) return;
  const std::size_t wordBytes = roundUp(size_) * sizeof(std::uint32_t);
  const std::size_t textOffset = wordBytes + size_ * sizeof(Entry);
  std::size_t textBytes = 0;
  for (const MeterEntry<T>& entry : entries) {
    textBytes += entry.key.size() + entry.customKey.size() + bytesOf(entry.defaultValue).size();
  }
  block_ = std::make_unique_for_overwrite<std::byte[]>(textOffset + textBytes);
  words_ = reinterpret_cast<std::uint32_t*>(block_.get());
  entries_ = reinterpret_cast<Entry*>(block_.get() + wordBytes);

  Writer writer(block_.get(), textOffset);
  for (std::size_t i = 0; i < size_; ++i) {
    const MeterEntry<T>& entry = entries[i];
    words_[i] = scanWord(entry.key);
    entries_[i] = {writer.put(entry.key), writer.put(entry.customKey), entry.type,
                   writer.put(bytesOf(entry.defaultValue))};
  }
  for (std::size_t i = size_; i < roundUp(size_); ++i) words_[i] = 0;
}

template MeterListCopy::MeterListCopy(const std::vector<MeterEntry<std::string>>& entries);
template MeterListCopy::MeterListCopy(const std::vector<MeterEntry<std::int32_t>>& entries);
template MeterListCopy::MeterListCopy(const std::vector<MeterEntry<std::uint32_t>>& entries);
template MeterListCopy::MeterListCopy(const std::vector<MeterEntry<float>>& entries);

std::size_t MeterListCopy::find(std::string_view key, std::size_t bound) const {
  const std::size_t end = bound < size_ ? bound : size_;
  const std::uint32_t word = scanWord(key);
  for (std::size_t step = 0; step < end; step += scanStep) {
    if (!anyEqual(words_ + step, word)) continue;
    const std::size_t stepEnd = step + scanStep < end ? step + scanStep : end;
    for (std::size_t i = step; i < stepEnd; ++i) {
      if (words_[i] == word && isKey(entries_[i].key, key)) return i;
    }
  }
  return npos;
}

}  // namespace gateway
