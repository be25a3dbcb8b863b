// A private deep copy of one list of engine entries, made for one item of a notification and walked
// from its first entry to its last.
//
// All of it lies in one block of memory, so a copy costs one allocation however long the list is.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "module/grpc-gateway/ConfigManager.h"

namespace gateway {

class EngineListCopy {
 public:
  explicit EngineListCopy(const std::vector<EngineEntry>& entries);

  std::size_t size() const { return size_; }
  const char* key(std::size_t i) const { return texts() + entries_[i].key; }
  std::string_view customKey(std::size_t i) const {
    return {texts() + entries_[i].customKey, entries_[i].customKeySize};
  }

 private:
  // Texts are positions behind the entries, each with a NUL at its end.
  struct Entry {
    std::uint32_t key;
    std::uint32_t customKey;
    std::uint32_t customKeySize;
  };

  char* texts() const { return reinterpret_cast<char*>(entries_ + size_); }

  std::size_t size_;
  std::unique_ptr<std::byte[]> block_;
  Entry* entries_;  // in block_
};

inline EngineListCopy::EngineListCopy(const std::vector<EngineEntry>& entries)
    : size_(entries.size()) {
  std::size_t textBytes = 0;
  for (const EngineEntry& entry : entries) {
    textBytes += entry.key.size() + 1 + entry.customKey.size() + 1;
  }
  block_ = std::make_unique_for_overwrite<std::byte[]>(size_ * sizeof(Entry) + textBytes);
  entries_ = reinterpret_cast<Entry*>(block_.get());

  std::uint32_t offset = 0;
  const auto put = [&](const std::string& text) {
    std::memcpy(texts() + offset, text.c_str(), text.size() + 1);
    const std::uint32_t position = offset;
    offset += static_cast<std::uint32_t>(text.size() + 1);
    return position;
  };
  for (std::size_t i = 0; i < size_; ++i) {
    const EngineEntry& entry = entries[i];
    entries_[i].key = put(entry.key);
    entries_[i].customKey = put(entry.customKey);
    entries_[i].customKeySize = static_cast<std::uint32_t>(entry.customKey.size());
  }
}

}  // namespace gateway
