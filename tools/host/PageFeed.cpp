#include "tools/host/PageFeed.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <string_view>
#include <utility>

#include "tools/common/Json.h"
#include "tools/host/Json.h"

namespace host {
namespace {

using Json = nlohmann::json;

constexpr std::chrono::seconds beatPeriod(1);

const std::string& instanceOfThisRun() {
  static const std::string instance = [] {
    std::random_device random;
    return fmt::format("{:08x}{:08x}", random(), random());
  }();
  return instance;
}

std::string eventText(std::string_view name, const Json& data) {
  return fmt::format("event: {}\ndata: {}\n\n", name, tools::jsonText(data));
}

}  // namespace

std::string PageFeed::next() {
  if (board_ != module_.board()) return "retry: 1000\n" + eventText("snapshot", snapshot());
  const Json news = update();
  return news.is_null() ? "" : eventText("update", news);
}

std::string PageFeed::quiet() {
  return ": quiet\n\n";
}

std::string PageFeed::last() {
  return eventText("stopped", {{"time", secondsSince1970(std::chrono::system_clock::now())}});
}

Json PageFeed::snapshot() {
  // The look goes first: what changes meanwhile is sent twice rather than never.
  board_ = module_.board();
  look_ = board_->changesSince(UINT64_MAX).look;
  nextLine_ = 0;
  lastNotification_ = 0;
  Json picture = slotsOf(module_);
  picture["instance"] = instanceOfThisRun();
  picture["status"] = statusOf(module_, log_);
  picture["log"] = Json::array();
  picture["notifications"] = Json::array();
  addNotes(picture);
  deliveries_ = module_.deliveriesSince(UINT64_MAX).next;
  return picture;
}

Json PageFeed::update() {
  Json news;
  const auto changes = board_->changesSince(look_);
  look_ = changes.look;
  for (const auto& [index, state] : changes.slots) {
    news["slots"].push_back({index, tools::jsonOf(state.value)});
  }
  if (!changes.slots.empty()) news["changes"] = board_->changeCount();
  addNotes(news);
  addLinks(news);
  if (!news.is_null()) news["time"] = secondsSince1970(std::chrono::system_clock::now());
  return news;
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

void PageFeed::addLinks(Json& to) {
  const auto deliveries = module_.deliveriesSince(deliveries_);
  deliveries_ = deliveries.next;
  for (const auto& [number, delivery] : deliveries.changed) {
    to["deliveries"].push_back(jsonOf(number, delivery));
  }
  const Links links = module_.links();
  std::array<LinkState, 3> states{};
  std::transform(links.begin(), links.end(), states.begin(), [](const Link& l) { return l.state; });
  const auto now = Clock::now();
  if (std::exchange(linkStates_, states) == states && now < nextBeat_) return;
  nextBeat_ = now + beatPeriod;
  to["links"] = linksOf(module_);
}

}  // namespace host
