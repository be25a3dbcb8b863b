#include "tools/discover/CustomKeys.h"

#include <string_view>

#include "tools/common/ConfiguredSlots.h"

namespace discover {
namespace {

// Bytes beyond ASCII don't count.
bool isWordByte(char byte) {
  return (byte >= '0' && byte <= '9') || (byte >= 'A' && byte <= 'Z') ||
         (byte >= 'a' && byte <= 'z');
}

// The words of the key, joined by underscores.
std::string joinedWordsOf(std::string_view key) {
  std::string name;
  bool wordBegins = false;
  for (const char byte : key) {
    if (!isWordByte(byte)) {
      wordBegins = true;
      continue;
    }
    if (wordBegins && !name.empty()) name += '_';
    wordBegins = false;
    name += byte;
  }
  return name.empty() ? "meter" : name;
}

}  // namespace

void CustomKeys::reserve(standin::SlotSet set, const std::string& name) {
  taken_.at(static_cast<std::size_t>(set)).insert(name);
}

std::string CustomKeys::nameFor(standin::SlotSet set, const std::string& key) {
  auto& taken = taken_.at(static_cast<std::size_t>(set));
  std::string base = joinedWordsOf(key);
  if (base.starts_with("gateway_")) base.insert(0, "meter_");
  std::string name = base.substr(0, tools::slotTextLimit);
  for (int number = 2; !taken.insert(name).second; ++number) {
    const std::string ending = "_" + std::to_string(number);
    name = base.substr(0, tools::slotTextLimit - ending.size()) + ending;
  }
  return name;
}

}  // namespace discover
