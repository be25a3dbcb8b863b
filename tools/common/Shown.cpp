#include "tools/common/Shown.h"

#include <nlohmann/json.hpp>

#include "tools/common/Json.h"

namespace tools {

std::string_view cutTo(std::string_view text, std::size_t limit) {
  if (text.size() <= limit) return text;
  std::size_t end = limit;
  // All bytes of a character but the first begin with the bits 10.
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
  return text.substr(0, end);
}

std::string shown(std::string_view text, std::size_t limit) {
  const std::string_view kept = cutTo(text, limit);
  std::string quoted = jsonText(nlohmann::json(kept));
  // JSON escapes every control character but this one.
  for (auto at = quoted.find('\x7f'); at != quoted.npos; at = quoted.find('\x7f')) {
    quoted.replace(at, 1, "\\u007f");
  }
  return kept.size() < text.size() ? quoted + "..." : quoted;
}

}  // namespace tools
