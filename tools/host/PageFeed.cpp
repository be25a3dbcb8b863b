#include "tools/host/PageFeed.h"

#include <fmt/format.h>

#include <array>
#include <random>
#include <string_view>

#include "tools/host/Json.h"

namespace host {
namespace {

using Json = nlohmann::json;
using Seconds = std::chrono::duration<double>;

constexpr std::array<std::string_view, 4> levelNames = {"trace", "network", "fault", "error"};

double secondsSince1970(std::chrono::system_clock::time_point time) {
  return Seconds(time.time_since_epoch()).count();
}

Json slotCounts(const SlotBoard& board) {
  Json counts = {{"fast", 0}, {"slow", 0}, {"engine", 0}};
  for (const SlotLabel& label : board.labels()) {
    Json& count = counts[std::string(standin::nameOf(label.set))];
    count = count.get<int>() + 1;
  }
  return counts;
}

Json slotList(const SlotBoard& board) {
  const auto states = board.states();
  const auto now = Clock::now();
  Json slots = Json::array();
  for (std::size_t i = 0; i < states.size(); ++i) {
    slots.push_back(jsonOf(board.labels()[i], states[i], now));
  }
  return slots;
}

const std::string& instanceOfThisRun() {
  static const std::string instance = [] {
    std::random_device random;
    return fmt::format("{:08x}{:08x}", random(), random());
  }();
  return instance;
}

}  // namespace

Json statusOf(const RunningModule& module, const LogBook& log) {
  const auto now = std::chrono::system_clock::now();
  Json logLines;
  const auto counts = log.counts();
  for (std::size_t i = 0; i < counts.size(); ++i) logLines[std::string(levelNames[i])] = counts[i];
  return {{"name", module.setup().name},
          {"config", module.setup().config},
          {"module", module.setup().module},
          {"targets", {{"meters", module.metersTarget()}, {"engine", module.engineTarget()}}},
          {"version", GATEWAY_VERSION},
          {"time", secondsSince1970(now)},
          {"startTime", secondsSince1970(module.startTime())},
          {"uptime", Seconds(now - module.startTime()).count()},
          {"slots", slotCounts(module.board())},
          {"changes", module.board().changeCount()},
          {"notifications", module.notificationCount()},
          {"logLines", logLines}};
}

Json slotsOf(const RunningModule& module) {
  return {{"time", secondsSince1970(std::chrono::system_clock::now())},
          {"slots", slotList(module.board())}};
}

std::string_view levelName(int level) {
  return levelNames.at(static_cast<std::size_t>(std::clamp(level, 1, 4) - 1));
}

Json PageFeed::snapshot() {
  // The look goes first: what changes meanwhile is told twice rather than never.
  look_ = module_.board().changesSince(UINT64_MAX).look;
  Json picture = slotsOf(module_);
  picture["instance"] = instanceOfThisRun();
  picture["status"] = statusOf(module_, log_);
  nextLine_ = 0;
  lastNotification_ = 0;
  picture["log"] = Json::array();
  picture["notifications"] = Json::array();
  addNotes(picture);
  return picture;
}

Json PageFeed::next(std::chrono::milliseconds limit, const std::stop_token& stop) {
  // Log lines and notifications come between two looks; they wait for the next one.
  const auto end = Clock::now() + limit;
  std::uint64_t look = look_;
  do {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
    const bool looked = module_.board().waitForLook(look, left, stop);
    Json told = news();
    if (!told.is_null()) return told;
    if (!looked) break;
    look = look_;
  } while (!stop.stop_requested());
  return nullptr;
}

Json PageFeed::news() {
  Json told;
  const auto changes = module_.board().changesSince(look_);
  look_ = changes.look;
  if (!changes.slots.empty()) {
    Json& slots = told["slots"] = Json::array();
    for (const auto& [index, state] : changes.slots) {
      slots.push_back({index, jsonOf(state.value)});
    }
    told["changes"] = module_.board().changeCount();
  }
  addNotes(told);
  if (!told.is_null()) told["time"] = secondsSince1970(std::chrono::system_clock::now());
  return told;
}

void PageFeed::addNotes(Json& to) {
  const auto lines = log_.linesFrom(nextLine_);
  nextLine_ = lines.next;
  for (const auto& line : lines.lines) to["log"].push_back(jsonOf(line));
  for (const auto& notification : module_.notificationsAfter(lastNotification_)) {
    lastNotification_ = notification.number;
    to["notifications"].push_back(jsonOf(notification));
  }
}

}  // namespace host
