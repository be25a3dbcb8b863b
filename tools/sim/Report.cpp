#include "tools/sim/Report.h"

#include <fmt/format.h>

#include <cmath>
#include <nlohmann/json.hpp>

#include "engine.pb.h"
#include "tools/common/Json.h"
#include "tools/common/Output.h"
#include "tools/common/Words.h"
#include "tools/sim/EventText.h"
#include "tools/sim/Journal.h"

namespace sim {
namespace {

using nlohmann::ordered_json;
using Value = sonalith::grpcengine::AnyValue;

// A parameter's value, for a line of text and for JSON.
struct Shown {
  std::string type;
  std::string text;
  ordered_json value;
};

// `text` is the shortest one that reads back as the same number. JSON has no infinities, so these
// stay text.
ordered_json jsonOf(double value, const std::string& text) {
  if (!std::isfinite(value)) return text;
  return ordered_json::parse(text);
}

template <class Number>
Shown shownNumber(const char* type, Number number) {
  const auto text = fmt::to_string(number);
  if constexpr (std::is_integral_v<Number>) return {type, text, number};
  return {type, text, jsonOf(static_cast<double>(number), text)};
}

template <class Numbers>
Shown shownNumbers(const char* type, const Numbers& numbers) {
  auto values = ordered_json::array();
  for (const auto number : numbers) values.push_back(shownNumber("", number).value);
  return {type, fmt::to_string(fmt::join(numbers, " ")), std::move(values)};
}

Shown shown(const Value& value) {
  switch (value.value_case()) {
    case Value::kSstring:
      return {"string", tools::printable(value.sstring()), value.sstring()};
    case Value::kSfloat:
      return shownNumber("float", value.sfloat());
    case Value::kSint:
      return shownNumber("int", value.sint());
    case Value::kSuint:
      return shownNumber("uint", value.suint());
    case Value::kAfloat:
      return shownNumbers("floats", value.afloat().data());
    case Value::kAint:
      return shownNumbers("ints", value.aint().data());
    case Value::kAuint:
      return shownNumbers("uints", value.auint().data());
    case Value::kSdouble:
      return shownNumber("double", value.sdouble());
    case Value::VALUE_NOT_SET:
      break;
  }
  return {"nothing", "", nullptr};
}

std::string textLine(const Opening& opening, const sonalith::grpcengine::KeyValue& param) {
  const auto [type, text, value] = shown(param.value());
  const bool nothing = value.is_null();
  return fmt::format("SetParams {} {} {}{}{}\n", opening.number, tools::printable(param.key()),
                     type, nothing ? "" : " ", text);
}

std::string lineOf(const ordered_json& object) {
  return tools::jsonText(object) + "\n";
}

ordered_json eventOf(const Opening& opening, const sonalith::grpcengine::KeyValue& param) {
  const auto value = shown(param.value());
  return {{"event", "set_params"},
          {"call", opening.number},
          {"key", param.key()},
          {"type", value.type},
          {"value", value.value}};
}

ordered_json unreadable(const Opening& opening) {
  return {{"event", "set_params_unreadable"},
          {"call", opening.number},
          {"bytes", hexOf(opening.request)}};
}

void log(const Opening& opening, std::string_view what) {
  tools::say("sim", fmt::format("{} {} {}", nameOf(opening.method), opening.number, what));
}

}  // namespace

std::vector<std::string> Report::eventNames() {
  return {"opened", "closed",     "set_params",   "set_params_unreadable",
          "fault",  "fault_over", "replay_begun", "replay_over"};
}

void Report::tell(const ordered_json& event) const {
  if (journal_ != nullptr) journal_->add(event);
  if (json_) tools::writeOut(lineOf(event));
}

void Report::listening(const Addresses& addresses) const {
  for (const auto& [service, address] :
       {std::pair("meters", addresses.meters), std::pair("engine", addresses.engine)}) {
    if (!address.empty()) listening(service, address);
  }
}

void Report::listening(std::string_view service, const std::string& address) const {
  tools::writeOut(json_
                      ? lineOf({{"event", "listening"}, {"service", service}, {"address", address}})
                      : fmt::format("{} {}\n", service, address));
}

void Report::params(const Opening& opening) const {
  sonalith::grpcengine::RequestSetParams request;
  if (!request.ParseFromString(opening.request)) {
    if (!json_) {
      tools::writeOut(
          fmt::format("SetParams {} unreadable {}\n", opening.number, hexOf(opening.request)));
    }
    tell(unreadable(opening));
  }
  std::string lines;
  for (const auto& param : request.params()) {
    if (!json_) lines += textLine(opening, param);
    if (!json_ && journal_ == nullptr) continue;
    const auto event = eventOf(opening, param);
    if (json_) lines += lineOf(event);
    if (journal_ != nullptr) journal_->add(event);
  }
  tools::writeOut(lines);
}

void Report::opened(const Opening& opening) const {
  tell({{"event", "opened"},
        {"stream", nameOf(opening.method)},
        {"call", opening.number},
        {"peer", opening.peer}});
  if (!json_) log(opening, "open from " + opening.peer);
}

void Report::closed(const Opening& opening, bool cancelled) const {
  const auto* const end = cancelled ? "cancelled" : "ended";
  tell({{"event", "closed"},
        {"stream", nameOf(opening.method)},
        {"call", opening.number},
        {"end", end}});
  if (!json_) log(opening, end);
}

void Report::replay(ReplayEvent event) const {
  const bool over = event == ReplayEvent::Over;
  tell({{"event", over ? "replay_over" : "replay_begun"}});
  if (!json_) tools::writeOut(fmt::format("replay {}\n", over ? "over" : "begun"));
}

void Report::fault(FaultEvent event, double seconds, const Fault& fault, Subject subject) const {
  const bool over = event == FaultEvent::Over;
  const auto name = rowOf(fault.kind).name;
  ordered_json line{{"event", over ? "fault_over" : "fault"},
                    {"at", std::round(seconds * 1000) / 1000},
                    {"fault", name},
                    {"subject", nameOf(subject)},
                    {"argument", fault.argument}};
  if (fault.percent) line["chance"] = fault.chance();
  tell(line);
  if (json_) return;
  const auto chance = fault.percent ? fmt::format(" with {}%", *fault.percent) : "";
  tools::writeOut(fmt::format("fault {:.3f} {} {}{}{}{}{}\n", seconds, name, nameOf(subject),
                              fault.argument.empty() ? "" : " ", fault.argument, chance,
                              over ? " over" : ""));
}

}  // namespace sim
