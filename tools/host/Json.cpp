#include "tools/host/Json.h"

#include <fmt/format.h>

#include <cmath>
#include <stdexcept>
#include <utility>

#include "tools/common/ConfiguredSlots.h"
#include "tools/common/Json.h"

namespace host {
namespace {

using Json = nlohmann::json;
using Seconds = std::chrono::duration<double>;

Json slotCounts(const SlotBoard& board) {
  Json counts = {{"fast", 0}, {"slow", 0}, {"engine", 0}};
  for (const SlotLabel& label : board.labels()) {
    Json& count = counts[std::string(standin::nameOf(label.set))];
    count = count.get<int>() + 1;
  }
  return counts;
}

Json logLineCounts(const LogBook& log) {
  Json counts;
  const auto byLevel = log.counts();
  for (std::size_t i = 0; i < byLevel.size(); ++i) {
    counts[std::string(levelNames[i])] = byLevel[i];
  }
  return counts;
}

// In seconds.
double ageIn(Clock::duration age) {
  return std::round(Seconds(age).count() * 1000) / 1000;
}

Json jsonOf(const Delivery& delivery) {
  return {{"state", nameOf(delivery.state)}, {"reason", delivery.reason}};
}

// Turns moments of the steady clock into seconds since 1970, to the millisecond.
class Calendar {
 public:
  double operator()(Clock::time_point time) const {
    const double seconds = secondsSince1970(now_) - Seconds(steadyNow_ - time).count();
    return std::round(seconds * 1000) / 1000;
  }

 private:
  const std::chrono::system_clock::time_point now_ = std::chrono::system_clock::now();
  const Clock::time_point steadyNow_ = Clock::now();
};

Json jsonOf(const ValueHistory::Trace& trace, const Calendar& calendar) {
  Json json = {{"period", Seconds(trace.period).count()}};
  for (const char* member : {"times", "last", "low", "high"}) json[member] = Json::array();
  for (const auto& point : trace.points) {
    json["times"].push_back(calendar(point.time));
    json["last"].push_back(tools::jsonOf(point.last));
    json["low"].push_back(tools::jsonOf(point.low));
    json["high"].push_back(tools::jsonOf(point.high));
  }
  return json;
}

[[noreturn]] void throwWrongShape() {
  throw std::invalid_argument(
      R"(the body has to be {"changes":[{"name":"out_gain","value":-6.5}]})");
}

Change changeOf(const Json& item) {
  const bool fits = item.is_object() && item.contains("name") && item.contains("value");
  if (!fits || !item["name"].is_string()) throwWrongShape();
  const Json& value = item["value"];
  if (!value.is_string() && !value.is_number()) throwWrongShape();
  return {item["name"], value.is_string() ? value.get<std::string>() : value.dump()};
}

}  // namespace

double secondsSince1970(std::chrono::system_clock::time_point time) {
  return Seconds(time.time_since_epoch()).count();
}

Json jsonOf(const SlotLabel& label, const SlotState& state, Clock::time_point now) {
  return {{"set", standin::nameOf(label.set)},
          {"type", nameOf(label.type)},
          {"name", label.name},
          {"key", label.key},
          {"value", tools::jsonOf(state.value)},
          {"age", ageIn(now - state.changed)},
          {"moved", state.hasMoved()},
          {"changes", state.changes}};
}

Json jsonOf(const Link& link, Clock::time_point now) {
  const auto& last = link.calls.lastMessage;
  return {{"link", standin::nameOf(link.set)},
          {"state", nameOf(link.state)},
          {"words", link.words},
          {"target", link.target},
          {"connected", isConnected(link.state)},
          {"since", ageIn(now - link.since)},
          {"attempts", link.calls.started},
          {"succeeded", link.calls.succeeded},
          {"failed", link.calls.failed},
          {"messages", link.calls.messages},
          {"rate", std::round(link.rate * 100) / 100},
          {"lastMessage", last ? Json(ageIn(now - *last)) : Json()}};
}

Json linksOf(const RunningModule& module) {
  const auto now = Clock::now();
  Json links = Json::array();
  for (const Link& link : module.links()) links.push_back(jsonOf(link, now));
  return links;
}

Json jsonOf(unsigned number, const Delivery& delivery) {
  Json json = jsonOf(delivery);
  json["number"] = number;
  return json;
}

Json jsonOf(const Notification& notification) {
  Json changes = Json::array();
  for (const auto& [name, value] : notification.changes) {
    changes.push_back({{"name", name}, {"value", value}});
  }
  return {{"number", notification.number},
          {"time", secondsSince1970(notification.time)},
          {"changes", changes},
          {"delivery", jsonOf(notification.delivery)}};
}

Json jsonOf(const standin::LogLine& line) {
  return {{"time", secondsSince1970(line.time)},
          {"level", line.level},
          {"file", line.file},
          {"line", line.line},
          {"text", line.text}};
}

Json statusOf(const RunningModule& module, const LogBook& log) {
  const auto now = std::chrono::system_clock::now();
  return {{"name", module.setup().name},
          {"config", module.setup().config},
          {"module", module.setup().module},
          {"targets", {{"meters", module.metersTarget()}, {"engine", module.engineTarget()}}},
          {"version", GATEWAY_VERSION},
          {"time", secondsSince1970(now)},
          {"startTime", secondsSince1970(module.startTime())},
          {"uptime", Seconds(now - module.startTime()).count()},
          {"links", linksOf(module)},
          {"slots", slotCounts(*module.board())},
          {"changes", module.board()->changeCount()},
          {"notifications", module.notificationCount()},
          {"logLines", logLineCounts(log)}};
}

Json readinessOf(const RunningModule& module) {
  return {{"ready", module.isReady()}, {"links", linksOf(module)}};
}

Json slotsOf(const RunningModule& module) {
  const auto board = module.board();
  const auto states = board->states();
  const auto now = Clock::now();
  Json slots = Json::array();
  for (std::size_t i = 0; i < states.size(); ++i) {
    slots.push_back(jsonOf(board->labels()[i], states[i], now));
  }
  return {{"time", secondsSince1970(std::chrono::system_clock::now())}, {"slots", slots}};
}

Json historyOf(const std::vector<SlotLabel>& labels, const ValueHistory& history,
               const std::vector<std::size_t>& slots, Clock::duration window) {
  const Calendar calendar;
  Json json = {{"time", calendar(Clock::now())},
               {"span", Seconds(ValueHistory::span).count()},
               {"gaps", Json::array()},
               {"slots", Json::array()}};
  for (const auto& [from, to] : history.gaps()) {
    json["gaps"].push_back({calendar(from), calendar(to)});
  }
  for (const std::size_t slot : slots) {
    if (slot >= labels.size())
      throw std::invalid_argument(fmt::format("there is no slot {}", slot));
    const SlotLabel& label = labels[slot];
    if (!history.isKept(slot)) {
      throw std::invalid_argument(fmt::format("{} has no history: it holds texts", label.name));
    }
    Json each = jsonOf(history.trace(slot, window, historyPoints / slots.size()), calendar);
    each.update({{"index", slot}, {"set", standin::nameOf(label.set)}, {"name", label.name}});
    json["slots"].push_back(std::move(each));
  }
  return json;
}

std::vector<Change> changesIn(std::string_view json) {
  const Json parsed = Json::parse(json, nullptr, false);
  if (parsed.is_discarded()) throw std::invalid_argument("the body is not JSON");
  if (!parsed.is_object() || !parsed.contains("changes") || !parsed["changes"].is_array()) {
    throwWrongShape();
  }
  std::vector<Change> changes;
  for (const Json& item : parsed["changes"]) changes.push_back(changeOf(item));
  return changes;
}

}  // namespace host
