// A private deep copy of one list of meter entries, made for one meter message and searched by key.
//
// Ownership: the copy owns one block of memory, which holds tags, entries and texts, and
// refers to nothing outside it. A copy therefore costs one allocation however long the list is. One
// thread at a time.
//
// The search goes through the entries in list order by their tags, which are made with the copy and
// live no longer. Where a tag agrees, the key's bytes decide.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "module/grpc-gateway/ConfigManager.h"
#include "module/grpc-gateway/KeyTags.h"
#include "module/grpc-gateway/TextBlock.h"

namespace gateway {

class MeterListCopy {
 public:
  // No entry found.
  static constexpr std::size_t npos = static_cast<std::size_t>(-1);

  // T is std::string, int32_t, uint32_t or float.
  template <class T>
  explicit MeterListCopy(const std::vector<MeterEntry<T>>& entries);

  std::size_t size() const { return size_; }

  // The position of the first entry below `bound` whose key equals `key` byte for byte, or npos.
  std::size_t find(std::string_view key, std::size_t bound) const;

 private:
  // An entry's texts stand in the block one after another: its key, at `offset`, its customKey, and
  // its default value, which is a text or the bytes of a number.
  struct Entry {
    std::uint32_t offset;
    std::uint32_t keySize;
    std::uint32_t customKeySize;
    std::uint32_t defaultSize;
    MeterEntryType type;
  };

  bool isKey(const Entry& entry, std::string_view key) const {
    return entry.keySize == key.size() && sameText(texts_ + entry.offset, key.data(), key.size());
  }

  std::size_t size_;
  std::unique_ptr<std::byte[]> block_;  // null for an empty list; the rest points into it
  KeyTag* tags_ = nullptr;              // one per entry, padded to whole steps of the scan
  Entry* entries_ = nullptr;
  char* texts_ = nullptr;
};

}  // namespace gateway
