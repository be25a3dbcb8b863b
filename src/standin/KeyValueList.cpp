#include "standin/KeyValueList.h"

#include <cstring>

namespace {

constexpr int unreadByte = 0xA5;

template <typename Number>
sonalith_itemValue valueOf(Number number) {
  static_assert(sizeof number <= sizeof(sonalith_itemValue));
  sonalith_itemValue value;
  std::memset(&value, unreadByte, sizeof value);
  std::memcpy(&value, &number, sizeof number);
  return value;
}

}  // namespace

sonalith_keyValueList& sonalith_keyValueList::add(const char* key, std::uint32_t type,
                                                  sonalith_itemValue value) {
  sonalith_keyValueItem item;
  std::memset(&item, unreadByte, sizeof item);
  item.key = kept(key);
  item.type = type;
  item.value = value;
  items_.push_back(item);
  return *this;
}

template <typename Number>
sonalith_keyValueList& sonalith_keyValueList::addArray(const char* key, std::uint32_t type,
                                                       std::list<std::vector<Number>>& arrays,
                                                       const std::vector<Number>& values) {
  arrays.push_back(values);
  const Number* elements = arrays.back().data();
  add(key, type, valueOf(elements));
  items_.back().count = values.size();
  return *this;
}

const char* sonalith_keyValueList::kept(const char* text) {
  return text == nullptr ? nullptr : texts_.emplace_back(text).c_str();
}

sonalith_keyValueList& sonalith_keyValueList::addUint(const char* key, std::uint32_t value) {
  return add(key, SONALITH_ITEM_UINT, valueOf(value));
}

sonalith_keyValueList& sonalith_keyValueList::addInt(const char* key, std::int32_t value) {
  return add(key, SONALITH_ITEM_INT, valueOf(value));
}

sonalith_keyValueList& sonalith_keyValueList::addFloat(const char* key, float value) {
  return add(key, SONALITH_ITEM_FLOAT, valueOf(value));
}

sonalith_keyValueList& sonalith_keyValueList::addString(const char* key, const char* value) {
  return add(key, SONALITH_ITEM_STRING, valueOf(kept(value)));
}

sonalith_keyValueList& sonalith_keyValueList::addUintArray(
    const char* key, const std::vector<std::uint32_t>& values) {
  return addArray(key, SONALITH_ITEM_UINT_ARRAY, uintArrays_, values);
}

sonalith_keyValueList& sonalith_keyValueList::addIntArray(const char* key,
                                                          const std::vector<std::int32_t>& values) {
  return addArray(key, SONALITH_ITEM_INT_ARRAY, intArrays_, values);
}

sonalith_keyValueList& sonalith_keyValueList::addFloatArray(const char* key,
                                                            const std::vector<float>& values) {
  return addArray(key, SONALITH_ITEM_FLOAT_ARRAY, floatArrays_, values);
}

sonalith_keyValueList& sonalith_keyValueList::addDouble(const char* key, double value) {
  return add(key, SONALITH_ITEM_DOUBLE, valueOf(value));
}

sonalith_keyValueList& sonalith_keyValueList::addOther(const char* key, std::uint32_t type,
                                                       sonalith_itemValue value) {
  return add(key, type, value);
}
