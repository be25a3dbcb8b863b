// The stand-in's key/value list. Tests and tools fill one and pass it to a module; modules get one
// from sonalith_keyValueListNew.
#pragma once

#include <cstdint>
#include <list>
#include <string>
#include <vector>

#include "host/sonalith.h"

// Owns everything that its items point to. One thread at a time, like any container. A pattern
// fills what no module may read: reserved fields, the high half of 32-bit values, and the count of
// items that are not arrays.
struct sonalith_keyValueList {
 public:
  sonalith_keyValueList() = default;
  sonalith_keyValueList(const sonalith_keyValueList&) = delete;
  sonalith_keyValueList& operator=(const sonalith_keyValueList&) = delete;

  // Each function appends one item of the type in its name and returns the list. A null key or
  // string stays null.
  sonalith_keyValueList& addUint(const char* key, std::uint32_t value);
  sonalith_keyValueList& addInt(const char* key, std::int32_t value);
  sonalith_keyValueList& addFloat(const char* key, float value);
  sonalith_keyValueList& addString(const char* key, const char* value);
  sonalith_keyValueList& addUintArray(const char* key, const std::vector<std::uint32_t>& values);
  sonalith_keyValueList& addIntArray(const char* key, const std::vector<std::int32_t>& values);
  sonalith_keyValueList& addFloatArray(const char* key, const std::vector<float>& values);
  sonalith_keyValueList& addDouble(const char* key, double value);
  // Appends an item of any type code, even one that no module knows.
  sonalith_keyValueList& addOther(const char* key, std::uint32_t type, sonalith_itemValue value);

  const std::vector<sonalith_keyValueItem>& items() const { return items_; }

 private:
  sonalith_keyValueList& add(const char* key, std::uint32_t type, sonalith_itemValue value);
  template <typename Number>
  sonalith_keyValueList& addArray(const char* key, std::uint32_t type,
                                  std::list<std::vector<Number>>& arrays,
                                  const std::vector<Number>& values);
  const char* kept(const char* text);

  std::vector<sonalith_keyValueItem> items_;
  // std::list, because its elements never move. An empty list owns no memory.
  std::list<std::string> texts_;
  std::list<std::vector<std::uint32_t>> uintArrays_;
  std::list<std::vector<std::int32_t>> intArrays_;
  std::list<std::vector<float>> floatArrays_;
};

namespace standin {
using KeyValueList = sonalith_keyValueList;
}  // namespace standin
