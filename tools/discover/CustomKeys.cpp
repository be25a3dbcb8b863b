#include "tools/discover/CustomKeys.h"

#include <string_view>

#include "host/sonalith.h"

namespace discover {
namespace {

constexpr std::size_t maximumSize = SONALITH_SLOT_TEXT_SIZE - 1;

// Bytes beyond ASCII are none.
bool isWordByte(char byte) {
  return (byte >= '0' && byte <= '9') || (byte >= 'A' && byte <= 'Z') ||
         (byte >= 'a' && byte <= 'z');
}

// Its words, parted by one underscore each.
std::string wordsOf(std::string_view key) {
  std::string name;
  bool parted = false;
  for (const char byte : key) {
    if (!isWordByte(byte)) {
      parted = true;
      continue;
    }
    if (parted && !name.empty()) name += '_';
    parted = false;
    name += byte;
  }
  return name.empty() ? "meter" : name;
}

}  // namespace

std::string CustomKeys::nameFor(standin::SlotSet set, const std::string& key) {
  auto& taken = taken_.at(static_cast<std::size_t>(set));
  std::string base = wordsOf(key);
  if (base.starts_with("gateway_")) base.insert(0, "meter_");
  std::string name = base.substr(0, maximumSize);
  for (int number = 2; !taken.insert(name).second; ++number) {
    const std::string ending = "_" + std::to_string(number);
    name = base.substr(0, maximumSize - ending.size()) + ending;
  }
  return name;
}

}  // namespace discover
