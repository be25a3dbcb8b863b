#include "tools/discover/CustomKeys.h"

#include <algorithm>
#include <cctype>
#include <string_view>

#include "module/grpc-gateway/GatewaySlots.h"

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

bool isDigit(char byte) {
  return byte >= '0' && byte <= '9';
}

template <class T>
bool isGeneratedFor(std::string_view name) {
  const std::string_view prefix = gateway::GatewaySlotGroup<T>::namePrefix;
  return name.starts_with(prefix) &&
         std::all_of(name.begin() + static_cast<std::ptrdiff_t>(prefix.size()), name.end(),
                     isDigit);
}

bool isGenerated(std::string_view name) {
  return isGeneratedFor<std::string>(name) || isGeneratedFor<std::int32_t>(name) ||
         isGeneratedFor<std::uint32_t>(name) || isGeneratedFor<float>(name);
}

}  // namespace

std::string CustomKeys::nameFor(standin::SlotSet set, const std::string& key) {
  auto& taken = taken_.at(static_cast<std::size_t>(set));
  const std::string base = wordsOf(key);
  std::string name = base.substr(0, maximumSize);
  for (int number = 2; isGenerated(name) || !taken.insert(name).second; ++number) {
    const std::string ending = "_" + std::to_string(number);
    name = base.substr(0, maximumSize - ending.size()) + ending;
  }
  return name;
}

}  // namespace discover
