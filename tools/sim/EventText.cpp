#include "tools/sim/EventText.h"

#include <fmt/format.h>

#include <charconv>
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

std::optional<std::string> bytesOfHex(std::string_view hex) {
  if (hex == "-") return std::string();
  if (hex.empty() || hex.size() % 2 != 0) return std::nullopt;
  std::string bytes;
  bytes.reserve(hex.size() / 2);
  for (; !hex.empty(); hex.remove_prefix(2)) {
    unsigned value = 0;
    if (std::from_chars(hex.data(), hex.data() + 2, value, 16).ptr != hex.data() + 2) {
      return std::nullopt;
    }
    bytes += static_cast<char>(value);
  }
  return bytes;
}

}  // namespace sim
