#include "tools/host/Reporter.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "tools/common/Json.h"
#include "tools/common/Output.h"
#include "tools/common/Words.h"
#include "tools/host/Json.h"
#include "tools/host/LogBook.h"

namespace host {
namespace {

using Json = nlohmann::json;

// For a reader that pauses, and for all slots of a large configuration at once.
constexpr std::size_t bytesWaiting = 16 << 20;

std::string eventText(std::string_view event, Json fields) {
  fields["event"] = event;
  return tools::jsonText(fields) + "\n";
}

std::string droppedText(bool json, std::size_t lines) {
  if (json) return eventText("dropped", {{"lines", lines}});
  return fmt::format("dropped {} lines: the reader is too slow\n", lines);
}

Json factsOf(const RunningModule& module) {
  return {{"module", module.setup().name},
          {"config", module.setup().config},
          {"meters_target", module.metersTarget()},
          {"engine_target", module.engineTarget()},
          {"slots", module.board()->labels().size()}};
}

using Row = std::array<std::string, 6>;

Row rowOf(const SlotLabel& label, const SlotState& state, Clock::time_point now) {
  const bool isText = label.type == gateway::ValueType::String;
  return {std::string(nameOf(label.set)),
          nameOf(label.type),
          tools::printable(label.name),
          isText ? tools::jsonText(tools::jsonOf(state.value)) : standin::textOf(state.value),
          state.hasMoved() ? ageText(now - state.changed) : "unchanged",
          tools::printable(label.key)};
}

std::string tableOf(const std::vector<Row>& rows) {
  std::array<std::size_t, std::tuple_size_v<Row>> widths{};
  for (const Row& row : rows) {
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
  }
  std::string table;
  for (const Row& row : rows) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      line += fmt::format("{:<{}}", row[i], widths[i] + 2);
    }
    table += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
  }
  return table;
}

// ANSI colours by weight: what is routine recedes, what is wrong stands out.
std::string_view colourOf(int level) {
  constexpr std::array<std::string_view, levelNames.size()> colours{"\x1b[2m", "", "\x1b[33m",
                                                                    "\x1b[31m"};
  return colours[levelIndex(level)];
}

}  // namespace

Reporter::Reporter(bool json)
    : json_(json),
      output_(std::make_unique<LineQueue>(STDOUT_FILENO, bytesWaiting, [json](std::size_t lines) {
        return droppedText(json, lines);
      })) {}

void Reporter::print(const std::string& line) const {
  output_->add(line + "\n");
}

void Reporter::printEvent(std::string_view event, Json fields) const {
  output_->add(eventText(event, std::move(fields)));
}

void Reporter::started(const RunningModule& module) const {
  if (json_) printEvent("started", factsOf(module));
}

void Reporter::reloaded(const RunningModule& module, const std::vector<SlotChange>& changes) const {
  if (json_) {
    Json fields = factsOf(module);
    fields["changes"] = Json::array();
    for (const SlotChange& change : changes) fields["changes"].push_back(jsonOf(change));
    return printEvent("reloaded", std::move(fields));
  }
  std::string text =
      fmt::format("reloaded {}: {} slots, {} changed\n", tools::printable(module.setup().config),
                  module.board()->labels().size(), changes.size());
  for (const SlotChange& change : changes) text += textOf(change) + "\n";
  output_->add(text);
}

void Reporter::page(const std::string& url) const {
  if (json_) {
    printEvent("page", {{"url", url}});
  } else {
    print("page " + url);
  }
}

void Reporter::slotChanged(const SlotLabel& label, const SlotState& state,
                           Clock::time_point now) const {
  if (json_) {
    printEvent("slot", jsonOf(label, state, now));
  } else {
    print(fmt::format("{} {} {}", nameOf(label.set), tools::printable(label.name),
                      tools::printable(standin::textOf(state.value))));
  }
}

void Reporter::slots(const SlotBoard& board, const std::vector<std::size_t>& indices) const {
  const auto now = Clock::now();
  const auto states = board.states();
  std::vector<Row> rows{{"SET", "TYPE", "NAME", "VALUE", "AGE", "KEY"}};
  Json slots = Json::array();
  for (const std::size_t i : indices) {
    if (json_) {
      slots.push_back(jsonOf(board.labels()[i], states[i], now));
    } else {
      rows.push_back(rowOf(board.labels()[i], states[i], now));
    }
  }
  if (json_) return printEvent("slots", {{"slots", slots}});
  output_->add(tableOf(rows));
}

void Reporter::notified(const Notification& notification) const {
  if (json_) {
    // Its outcome has events of its own.
    Json fields = jsonOf(notification);
    fields.erase("delivery");
    return printEvent("notification", std::move(fields));
  }
  std::string line = fmt::format("notification {}", notification.number);
  for (const auto& [name, value] : notification.changes) {
    line += fmt::format(" {} {}", tools::printable(name), tools::printable(value));
  }
  print(line);
}

void Reporter::decided(const Expectations::Outcome& outcome) const {
  if (json_) {
    return printEvent("expectation", {{"text", outcome.text},
                                      {"met", outcome.isMet},
                                      {"seconds", outcome.seconds},
                                      {"value", outcome.value}});
  }
  print(fmt::format("expected {}: {} after {:.1f} s, {}", tools::printable(outcome.text),
                    outcome.isMet ? "met" : "not met", outcome.seconds,
                    tools::printable(outcome.value)));
}

void Reporter::delivered(unsigned number, const Delivery& delivery) const {
  using State = Delivery::State;
  if (delivery.state == State::Waiting || delivery.state == State::Unknown) return;
  if (json_) return printEvent("delivery", jsonOf(number, delivery));
  const std::string reason = delivery.reason.empty() ? "" : ": " + delivery.reason;
  print(fmt::format("notification {} {}{}", number, nameOf(delivery.state),
                    tools::printable(reason)));
}

void Reporter::linkChanged(const Link& link, Clock::time_point now) const {
  if (json_) return printEvent("link", jsonOf(link, now));
  print(fmt::format("link {}: {}", standin::nameOf(link.set), tools::printable(link.words)));
}

void Reporter::help(const std::string& text) const {
  if (json_) return printEvent("help", {{"text", text}});
  output_->add(text);
}

void Reporter::cycles(const CyclesReport& report) const {
  output_->add(json_ ? tools::jsonText(jsonOf(report)) + "\n" : textOf(report));
}

void Reporter::complain(const std::string& text) const {
  tools::say("host", tools::printable(text));
  if (json_) printEvent("error", {{"text", text}});
}

void printLog(const standin::LogLine& line) {
  static const bool hasColours = tools::showsColours(STDERR_FILENO);
  const auto time = std::chrono::time_point_cast<std::chrono::milliseconds>(line.time);
  const auto milliseconds = time.time_since_epoch().count() % 1000;
  const std::string_view colour = hasColours ? colourOf(line.level) : "";
  tools::writeError(fmt::format("{}{:%H:%M:%S}.{:03} [{}] {}:{}  {}{}\n", colour,
                                fmt::localtime(std::chrono::system_clock::to_time_t(line.time)),
                                milliseconds, line.level, line.file, line.line,
                                tools::printable(line.text), colour.empty() ? "" : "\x1b[0m"));
}

std::string ageText(Clock::duration age) {
  const double seconds = std::chrono::duration<double>(age).count();
  if (seconds < 10) return fmt::format("{:.1f} s", seconds);
  if (seconds < 120) return fmt::format("{:.0f} s", seconds);
  if (seconds < 7200) return fmt::format("{:.0f} min", seconds / 60);
  if (seconds < 172800) return fmt::format("{:.0f} h", seconds / 3600);
  return fmt::format("{:.0f} d", seconds / 86400);
}

}  // namespace host
