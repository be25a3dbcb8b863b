#include "tools/sim/Journal.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <utility>

#include "tools/common/Json.h"

namespace sim {
namespace {

using nlohmann::ordered_json;

double secondsSince1970() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::round(std::chrono::duration<double>(now).count() * 1e6) / 1e6;
}

// Whether the event has this text as its member, if one is wanted.
bool fits(const ordered_json& event, const char* member, const std::string& wanted) {
  return wanted.empty() || event.value(member, "") == wanted;
}

bool fits(const ordered_json& event, const Journal::Query& query) {
  return fits(event, "event", query.event) && fits(event, "stream", query.stream) &&
         fits(event, "key", query.key);
}

}  // namespace

void Journal::add(const ordered_json& event) {
  const std::size_t bytes = tools::jsonText(event).size();
  const std::lock_guard lock(mutex_);
  ordered_json numbered{{"number", ++last_}, {"time", secondsSince1970()}};
  numbered.update(event);
  entries_.push_back({std::move(numbered), bytes});
  bytes_ += bytes;
  // The latest event stays, whatever its size.
  while (entries_.size() > 1 && (entries_.size() > mostEvents || bytes_ > mostBytes)) {
    lost_ = last_ - entries_.size() + 1;
    bytes_ -= entries_.front().bytes;
    entries_.pop_front();
  }
  if (changed_) changed_();
}

Journal::Found Journal::find(const Query& query) const {
  const std::lock_guard lock(mutex_);
  Found found;
  found.last = last_;
  const std::uint64_t seen = std::max(query.after, cleared_);
  found.lost = lost_ - std::min(lost_, seen);
  const std::uint64_t first = last_ - entries_.size() + 1;
  const std::uint64_t next = std::min(last_, query.after) + 1;
  for (std::uint64_t i = next - std::min(next, first); i < entries_.size(); ++i) {
    const auto& event = entries_[i].event;
    if (fits(event, query)) found.events.push_back(event);
  }
  return found;
}

std::uint64_t Journal::last() const {
  const std::lock_guard lock(mutex_);
  return last_;
}

std::uint64_t Journal::clear() {
  const std::lock_guard lock(mutex_);
  entries_.clear();
  bytes_ = 0;
  return cleared_ = last_;
}

void Journal::watch(std::function<void()> changed) {
  const std::lock_guard lock(mutex_);
  changed_ = std::move(changed);
}

}  // namespace sim
