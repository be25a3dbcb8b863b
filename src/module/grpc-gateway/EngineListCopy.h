// A private deep copy of one list of engine entries, made for one item of a notification and walked
// from the first entry to the last.
//
// Ownership: the copy owns one block of memory and refers to nothing outside it. Copying a list
// visits each text. Copying a copy is one allocation and one memcpy however long the list is, so a
// notification packs a list once, and each of its items gets a copy of that. One thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "module/grpc-gateway/ConfigManager.h"
#include "module/grpc-gateway/TextBlock.h"

namespace gateway {

class EngineListCopy {
 public:
  explicit EngineListCopy(const std::vector<EngineEntry>& entries);
  EngineListCopy(const EngineListCopy& other);
  EngineListCopy& operator=(const EngineListCopy&) = delete;

  std::size_t size() const { return size_; }
  const char* key(std::size_t i) const { return texts() + entries_[i].key; }
  bool hasCustomKey(std::size_t i) const { return entries_[i].customKeySize != 0; }
  bool customKeyIs(std::size_t i, std::string_view name) const {
    return entries_[i].customKeySize == name.size() &&
           sameText(texts() + entries_[i].customKey, name.data(), name.size());
  }

 private:
  // Texts are offsets from the end of the entries; each ends with a NUL.
  struct Entry {
    std::uint32_t key;
    std::uint32_t customKey;
    std::uint32_t customKeySize;
  };

  EngineListCopy(std::size_t size, std::size_t bytes)
      : size_(size),
        bytes_(bytes),
        block_(std::make_unique_for_overwrite<std::byte[]>(bytes)),
        entries_(reinterpret_cast<Entry*>(block_.get())) {}

  static std::size_t bytesFor(const std::vector<EngineEntry>& entries);
  char* texts() const { return reinterpret_cast<char*>(entries_ + size_); }

  std::size_t size_;
  std::size_t bytes_;  // of block_
  std::unique_ptr<std::byte[]> block_;
  Entry* entries_;  // in block_
};

inline std::size_t EngineListCopy::bytesFor(const std::vector<EngineEntry>& entries) {
  std::size_t bytes = 0;
  for (const EngineEntry& entry : entries) {
    bytes += sizeof(Entry) + entry.key.size() + 1 + entry.customKey.size() + 1;
  }
  return bytes;
}

inline EngineListCopy::EngineListCopy(const EngineListCopy& other)
    : EngineListCopy(other.size_, other.bytes_) {
  std::memcpy(block_.get(), other.block_.get(), bytes_);
}

inline EngineListCopy::EngineListCopy(const std::vector<EngineEntry>& entries)
    : EngineListCopy(entries.size(), bytesFor(entries)) {
  char* const begin = texts();
  char* end = begin;
  const auto put = [&](const std::string& text) {
    const auto position = static_cast<std::uint32_t>(end - begin);
    copyText(end, text.c_str(), text.size() + 1);
    end += text.size() + 1;
    return position;
  };
  for (std::size_t i = 0; i < size_; ++i) {
    const EngineEntry& entry = entries[i];
    entries_[i] = {put(entry.key), put(entry.customKey),
                   static_cast<std::uint32_t>(entry.customKey.size())};
  }
}

}  // namespace gateway
