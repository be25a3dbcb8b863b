#include "tools/host/Json.h"

#include <fmt/format.h>

#include <cmath>
#include <cstdlib>
#include <variant>

namespace host {
namespace {

using Json = nlohmann::json;
using Seconds = std::chrono::duration<double>;

struct ToJson {
  Json operator()(float value) const {
    const std::string text = fmt::format("{}", value);
    // The double nearest to the shortest text prints as that text; the float's own would not.
    return std::isfinite(value) ? Json(std::strtod(text.c_str(), nullptr)) : Json(text);
  }

  template <class T>
  Json operator()(const T& value) const {
    return value;
  }
};

double secondsSince1970(std::chrono::system_clock::time_point time) {
  return Seconds(time.time_since_epoch()).count();
}

}  // namespace

Json jsonOf(const standin::SlotValue& value) {
  return std::visit(ToJson{}, value);
}

Json jsonOf(const SlotLabel& label, const SlotState& state, Clock::time_point now) {
  return {{"set", standin::nameOf(label.set)},
          {"type", nameOf(label.type)},
          {"name", label.name},
          {"key", label.key},
          {"value", jsonOf(state.value)},
          {"age", std::round(Seconds(now - state.changed).count() * 1000) / 1000},
          {"moved", state.hasMoved()}};
}

Json jsonOf(const Notification& notification) {
  Json changes = Json::array();
  for (const auto& [name, value] : notification.changes) {
    changes.push_back({{"name", name}, {"value", value}});
  }
  return {{"number", notification.number},
          {"time", secondsSince1970(notification.time)},
          {"changes", changes}};
}

Json jsonOf(const standin::LogLine& line) {
  return {{"time", secondsSince1970(line.time)},
          {"level", line.level},
          {"file", line.file},
          {"line", line.line},
          {"text", line.text}};
}

std::string textOf(const Json& json) {
  constexpr int compact = -1;
  return json.dump(compact, ' ', false, Json::error_handler_t::replace);
}

}  // namespace host
