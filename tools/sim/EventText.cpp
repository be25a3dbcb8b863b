#include "tools/sim/EventText.h"

#include <fmt/format.h>

#include <iterator>

namespace sim {

std::string hexOf(std::string_view bytes) {
  if (bytes.empty()) return "-";
  std::string hex;
  hex.reserve(2 * bytes.size());
  for (const char byte : bytes) {
    fmt::format_to(std::back_inserter(hex), "{:02x}", static_cast<unsigned char>(byte));
  }
  return hex;
}

std::string escaped(std::string_view text) {
  std::string line;
  for (const char character : text) {
    const auto code = static_cast<unsigned char>(character);
    if (code < 0x20 || code == 0x7f || character == '\\') {
      fmt::format_to(std::back_inserter(line), "\\x{:02x}", code);
    } else {
      line += character;
    }
  }
  return line;
}

}  // namespace sim
