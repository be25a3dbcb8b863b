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

}  // namespace sim
