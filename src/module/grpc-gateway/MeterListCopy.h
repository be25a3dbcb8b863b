// A private deep copy of one list of meter entries, made for one meter message and searched by key.
//
// All of it (entries, texts and what the search reads) lies in one block of memory, so a copy costs
// one allocation however long the list is. It owns the block and refers to nothing outside.
//
// The search goes through the entries from the first to the last, as the list has them. It first
// compares a word that holds pieces of the key, four entries and more at a time, and reads the key
// itself only where the word agrees: with a thousand entries nearly all of them are passed over
// without a call. The word decides nothing else, and nothing of it outlives the copy.
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
  // No entry.
  static constexpr std::size_t npos = static_cast<std::size_t>(-1);

  // T is std::string, int32_t, uint32_t or float.
  template <class T>
  explicit MeterListCopy(const std::vector<MeterEntry<T>>& entries);

  std::size_t size() const { return size_; }

  // Position of the first entry below `bound` whose key has the same length and bytes, or npos.
  std::size_t find(std::string_view key, std::size_t bound) const;

 private:
  // An entry of the copy. Texts are positions in the block.
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
  std::unique_ptr<std::byte[]> block_;  // null for a list without entries
  std::uint32_t* words_ = nullptr;  // in block_; one for each entry, up to a whole number of steps
  Entry* entries_ = nullptr;        // in block_
};

}  // namespace gateway
