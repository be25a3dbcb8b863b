#include "module/grpc-gateway/MeterListCopy.h"

#include <cstring>
#include <string>
#include <type_traits>

namespace gateway {
namespace {

constexpr std::size_t wholeSteps(std::size_t count) {
  return (count + tagsPerStep - 1) / tagsPerStep * tagsPerStep;
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

template <class T>
MeterListCopy::MeterListCopy(const std::vector<MeterEntry<T>>& entries) : size_(entries.size()) {
  if (entries.empty()) return;
  std::size_t textBytes = 0;
  for (const MeterEntry<T>& entry : entries) {
    textBytes += entry.key.size() + entry.customKey.size() + bytesOf(entry.defaultValue).size();
  }
  const std::size_t tagBytes = wholeSteps(size_) * sizeof(KeyTag);
  const std::size_t entryBytes = size_ * sizeof(Entry);
  block_ = std::make_unique_for_overwrite<std::byte[]>(tagBytes + entryBytes + textBytes);
  tags_ = reinterpret_cast<KeyTag*>(block_.get());
  entries_ = reinterpret_cast<Entry*>(block_.get() + tagBytes);
  texts_ = reinterpret_cast<char*>(block_.get() + tagBytes + entryBytes);
  std::memset(tags_ + size_, 0, tagBytes - size_ * sizeof(KeyTag));

  char* end = texts_;
  const auto put = [&](std::string_view text) {
    copyText(end, text.data(), text.size());
    end += text.size();
    return static_cast<std::uint32_t>(text.size());
  };
  for (std::size_t i = 0; i < size_; ++i) {
    const MeterEntry<T>& entry = entries[i];
    tags_[i] = tagOf(entry.key);
    const auto offset = static_cast<std::uint32_t>(end - texts_);
    entries_[i] = {offset, put(entry.key), put(entry.customKey), put(bytesOf(entry.defaultValue)),
                   entry.type};
  }
}

template MeterListCopy::MeterListCopy(const std::vector<MeterEntry<std::string>>& entries);
template MeterListCopy::MeterListCopy(const std::vector<MeterEntry<std::int32_t>>& entries);
template MeterListCopy::MeterListCopy(const std::vector<MeterEntry<std::uint32_t>>& entries);
template MeterListCopy::MeterListCopy(const std::vector<MeterEntry<float>>& entries);

std::size_t MeterListCopy::find(std::string_view key, std::size_t bound) const {
  const std::size_t end = bound < size_ ? bound : size_;
  const KeyTag tag = tagOf(key);
  for (std::size_t at = scanTags(tags_, 0, end, tag); at < end;
       at = scanTags(tags_, at + 1, end, tag)) {
    if (isKey(entries_[at], key)) return at;
  }
  return npos;
}

}  // namespace gateway
