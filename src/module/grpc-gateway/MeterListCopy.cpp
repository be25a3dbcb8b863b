#include "module/grpc-gateway/MeterListCopy.h"

#include <cstring>
#include <string>
#include <type_traits>

namespace gateway {
namespace {

// Words compared in one step of the scan. A compiler makes a few vector instructions of a step.
constexpr std::size_t scanStep = 16;

constexpr std::size_t roundUp(std::size_t count) {
  return (count + scanStep - 1) / scanStep * scanStep;
}

// Pieces of a key in a word: the low halves of eight bytes, from where the keys of one server tend
// to differ. Those halves tell all digits apart, and most letters.
std::uint32_t scanWord(std::string_view key) {
  const std::size_t size = key.size();
  if (size == 0) return 0;
  const std::size_t last = size - 1;
  const std::size_t middle = size / 2;
  const auto piece = [&](std::size_t position, unsigned shift) {
    const std::size_t within = position < size ? position : last;
    return (static_cast<std::uint32_t>(key[within]) & 0xfu) << shift;
  };
  // Behind the start of a short key, `position` wraps around and is taken as the last byte.
  return piece(last, 0) | piece(last - 1, 4) | piece(last - 2, 8) | piece(middle, 12) |
         piece(middle + 1, 16) | piece(middle - 1, 20) | piece(2, 24) | piece(3, 28);
}

bool anyEqual(const std::uint32_t* words, std::uint32_t word) {
  std::uint32_t found = 0;
  for (std::size_t i = 0; i < scanStep; ++i) found |= static_cast<std::uint32_t>(words[i] == word);
  return found != 0;
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
      if (words_[i] == word && view(entries_[i].key) == key) return i;
    }
  }
  return npos;
}

}  // namespace gateway
