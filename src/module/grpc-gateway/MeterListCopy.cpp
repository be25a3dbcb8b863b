#include "module/grpc-gateway/MeterListCopy.h"

#include <cstring>
#include <string>
#include <type_traits>

namespace gateway {
namespace {

// Words compared in one step of the scan, and in one part of a step that has an equal word.
constexpr std::size_t scanStep = 32;
constexpr std::size_t scanPart = 16;

constexpr std::size_t roundUp(std::size_t count) {
  return (count + scanStep - 1) / scanStep * scanStep;
}

std::uint64_t load(const char* bytes, std::size_t size) {
  std::uint64_t value = 0;
  std::memcpy(&value, bytes, size);
  return value;
}

// Five pieces of eight bytes, spread evenly from the first byte to the last: all of a key of up to
// forty bytes, and most of a longer one. The factors are odd and otherwise of no importance.
std::uint64_t piecesOf(const char* key, std::size_t size) {
  const std::size_t last = size - 8;
  return load(key, 8) * 0x9e3779b97f4a7c15u + load(key + last / 4, 8) * 0xc2b2ae3d27d4eb4fu +
         load(key + last / 2, 8) * 0x165667b19e3779f9u +
         load(key + last * 3 / 4, 8) * 0x85ebca77c2b2ae63u +
         load(key + last, 8) * 0x27d4eb2f165667c5u;
}

// All bytes of a key of less than eight.
std::uint64_t bytesOfShort(const char* key, std::size_t size) {
  if (size >= 4) return load(key, 4) | load(key + size - 4, 4) << 32;
  if (size == 0) return 0;
  return load(key, 1) | load(key + size / 2, 1) << 8 | load(key + size - 1, 1) << 16;
}

// Equal keys have equal words, and few others have.
std::uint16_t scanWord(std::string_view key) {
  const std::size_t size = key.size();
  std::uint64_t word = size < 8 ? bytesOfShort(key.data(), size) : piecesOf(key.data(), size);
  word = (word ^ word >> 32) + size;
  return static_cast<std::uint16_t>(word * 0x9e3779b97f4a7c15u >> 48);
}

// Eight words side by side. g++ and clang++ take such types for any processor, and compare them in
// one instruction where there is one.
using Words = std::uint16_t __attribute__((vector_size(16)));
using Halves = std::uint64_t __attribute__((vector_size(16)));

template <std::size_t count>
bool anyEqual(const std::uint16_t* words, std::uint16_t word) {
  const Words wanted = Words{} + word;
  Words found{};
  for (std::size_t i = 0; i < count; i += sizeof(Words) / sizeof(word)) {
    Words some;
    std::memcpy(&some, words + i, sizeof some);
    found |= reinterpret_cast<Words>(some == wanted);
  }
  const auto halves = reinterpret_cast<Halves>(found);
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

// Puts texts into the block, one behind the other.
class MeterListCopy::Writer {
 public:
  Writer(std::byte* block, std::size_t offset) : block_(block), offset_(offset) {}

  Text put(std::string_view text) {
    const Text stored{static_cast<std::uint32_t>(offset_), static_cast<std::uint32_t>(text.size())};
    if (!text.empty()) std::memcpy(block_ + offset_, text.data(), text.size());
    offset_ += text.size();
    return stored;
  }

 private:
  std::byte* block_;
  std::size_t offset_;
};

template <class T>
MeterListCopy::MeterListCopy(const std::vector<MeterEntry<T>>& entries) : size_(entries.size()) {
  const std::size_t wordBytes = roundUp(size_) * sizeof(std::uint16_t);
  const std::size_t textOffset = wordBytes + size_ * sizeof(Entry);
  std::size_t textBytes = 0;
  for (const MeterEntry<T>& entry : entries) {
    textBytes += entry.key.size() + entry.customKey.size() + bytesOf(entry.defaultValue).size();
  }
  block_ = std::make_unique_for_overwrite<std::byte[]>(textOffset + textBytes);
  words_ = reinterpret_cast<std::uint16_t*>(block_.get());
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
  const std::uint16_t word = scanWord(key);
  for (std::size_t step = 0; step < end; step += scanStep) {
    if (!anyEqual<scanStep>(words_ + step, word)) continue;
    for (std::size_t part = step; part < step + scanStep; part += scanPart) {
      if (!anyEqual<scanPart>(words_ + part, word)) continue;
      const std::size_t partEnd = part + scanPart < end ? part + scanPart : end;
      for (std::size_t i = part; i < partEnd; ++i) {
        if (words_[i] == word && view(entries_[i].key) == key) return i;
      }
    }
  }
  return npos;
}

}  // namespace gateway
