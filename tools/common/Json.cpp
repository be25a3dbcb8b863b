#include "tools/common/Json.h"

#include <fmt/format.h>

#include <cmath>
#include <cstdlib>
#include <variant>

namespace tools {
namespace {

struct ToJson {
  nlohmann::json operator()(float value) const {
    if (std::isnan(value)) return "nan";  // without the sign that fmt would show
    const std::string text = fmt::format("{}", value);
    if (std::isinf(value)) return text;
    // The double nearest to the shortest text prints as that text; the float's own would not.
    return std::strtod(text.c_str(), nullptr);
  }

  template <class T>
  nlohmann::json operator()(const T& value) const {
    return value;
  }
};

}  // namespace

nlohmann::json jsonOf(const standin::SlotValue& value) {
  return std::visit(ToJson{}, value);
}

bool isNestedDeeperThan(int limit, std::string_view json) {
  int depth = 0;
  bool isInString = false;
  for (std::size_t i = 0; i < json.size() && depth <= limit; ++i) {
    const char c = json[i];
    if (c == '"') isInString = !isInString;
    if (isInString) {
      if (c == '\\') ++i;
    } else if (c == '[' || c == '{') {
      ++depth;
    } else if (c == ']' || c == '}') {
      --depth;
    }
  }
  return depth > limit;
}

}  // namespace tools
