#include "tools/common/Numbers.h"

#include <fmt/format.h>

namespace tools {

std::string checkNumber(std::string_view text, double least, double most) {
  const auto number = numberIn<double>(text);
  if (number && *number >= least && *number <= most) return {};
  return fmt::format("\"{}\" is not a number from {} to {:.0f}", text, least, most);
}

}  // namespace tools
