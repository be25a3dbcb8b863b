#include "tools/probe/Watch.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace probe {

Watch::Watch(const std::string& target, tools::Sightings sightings)
    : listener_(target, std::move(sightings), this) {}

Course Watch::courseOf(SlotSet rate) const {
  const std::lock_guard lock(mutex_);
  return streams_[rate == SlotSet::Fast ? 0 : 1].course;
}

bool Watch::hasSeenExpected() const {
  const std::lock_guard lock(mutex_);
  return hasSeenExpected_;
}

void Watch::took(SlotSet rate, std::size_t bytes, const tools::Sightings& sightings) {
  constexpr std::chrono::milliseconds burstLength(10);
  const auto now = Clock::now();
  const std::lock_guard lock(mutex_);
  Stream& stream = streamOf(rate);
  Course& course = stream.course;
  if (course.messages++ == 0) {
    course.first = now;
  } else {
    course.longestPause = std::max(course.longestPause, now - course.last);
  }
  course.last = now;
  course.bytes += bytes;
  course.longest = std::max<std::uint64_t>(course.longest, bytes);
  if (now - stream.burstBegin > burstLength) {
    stream.burstBegin = now;
    stream.burst = 0;
  }
  course.burst = std::max(course.burst, ++stream.burst);
  if (!course.firstValues && !sightings.keysOf(rate).empty()) {
    course.firstValues = now;
    course.snapshotKeys = sightings.keysOf(rate).size();
  }
  hasSeenExpected_ = sightings.hasSeenExpected();
  event_.signal();
}

void Watch::ended(SlotSet rate, const grpc::Status& status) {
  const std::lock_guard lock(mutex_);
  streamOf(rate).course.end = status;
  event_.signal();
}

}  // namespace probe
