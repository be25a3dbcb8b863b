// A private deep copy of one list of meter entries, made for one meter message and searched by key.
//
// Ownership: the copy owns one block of memory, which holds entries, texts and search words, and
// refers to nothing outside it. A copy therefore costs one allocation however long the list is. One
// thread at a time.
//
// The search walks the entries in list order. It first compares a word that holds pieces of the
// key, several entries at a time, and reads a key only where the word matches. With a thousand
// entries it skips nearly all of them without a call. The word decides nothing else and lives no
// longer than the copy.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "module/grpc-gateway/ConfigManager.h"
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
  // Offset and size of a text in the block.
  struct Text {
    std::uint32_t offset;
    std::uint32_t size;
  };
  struct Entry {
    Text key;
    Text customKey;
    MeterEntryType type;
    Text defaultValue;  // the text, or the bytes of a number
  };
  class Writer;

  bool isKey(const Text& text, std::string_view key) const {
    const char* const bytes = reinterpret_cast<const char*>(block_.get()) + text.offset;
    return text.size == key.size() && sameText(bytes, key.data(), key.size());
  }

  std::size_t size_;
  std::unique_ptr<std::byte[]> block_;  // null for an empty list
  std::uint32_t* words_ = nullptr;      // in block_; one per entry, padded to whole steps
  Entry* entries_ = nullptr;            // in block_
};

}  // namespace gateway
