#include "tests/proof/soak/StreamWatch.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace soak {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// The last missing number was due before the break, and so before its report. When the replay began
// is known up to the delay of the fastest message.
constexpr seconds clocksDiffer{1};
// A busy machine sends late, and reports late. A stream that joins a replay in its first second
// also gets what was due before.
constexpr seconds mostLate{6};
// How long the report of a break may take.
constexpr seconds reportTakes{10};
// A simulator that replays gives a stream that opens within a second after the recorded one all
// messages since then.
constexpr milliseconds joinsInTime{900};
// A stream that a fault has ended is open again this long after the fault is over.
constexpr seconds recovery{10};
constexpr seconds disturbancesKept{300};
constexpr std::size_t mostProblems = 20;

}  // namespace

void StreamWatch::disturbed() {
  const auto now = now_();
  if (disturbances_.empty() || now - disturbances_.back() > milliseconds(500)) {
    disturbances_.push_back(now);
  }
}

// Places repeat with each round of the replay. A place stands for the number that is nearest to the
// newest one.
Number StreamWatch::heldBy(Number slot) {
  const Number place = read_(slot);
  if (place == 0) return std::numeric_limits<Number>::min();
  if (place < 0 || place > course_.recorded || place % course_.ring != slot) {
    problems_.push_back(Course::key(slot) + " has " + std::to_string(place) +
                        ", which was not sent to it");
    return std::numeric_limits<Number>::min();
  }
  const Number ahead = ((place - newest_) % course_.recorded + course_.recorded) % course_.recorded;
  return newest_ + (ahead < course_.recorded / 2 ? ahead : ahead - course_.recorded);
}

// The module writes one number after the other. So once the newest one has been seen, a second read
// finds all earlier ones.
void StreamWatch::look() {
  Number newest = newest_;
  for (Number slot = 0; slot < course_.ring; ++slot) newest = std::max(newest, heldBy(slot));
  const auto now = now_();
  if (newest > newest_) {
    latest_ = now;
    epoch_ = std::min(epoch_, now - newest * course_.interval);
  }
  for (Number number = newest_ + 1; number <= newest; ++number) {
    if (course_.isSent(number)) account(number, heldBy(number % course_.ring));
  }
  newest_ = newest;
  judge(now);
  forget();
}

void StreamWatch::account(Number number, Number held) {
  if (held == number) return saw(number);
  if (held < number) return missed(number);
  ++unknown_;
  if (gap_) ++gap_->unknown;
}

void StreamWatch::saw(Number number) {
  ++seen_;
  if (gap_) {
    endGap(*gap_, number);
    gap_.reset();
  } else if (course_.isFirstAfterEnd(number) && lastSeen_ == number - course_.pause) {
    ++endsWithoutLoss_;
    // Nothing is missing, but the break is used up.
    endGap({number, number - 1}, number);
  }
  lastSeen_ = number;
}

void StreamWatch::endGap(Gap gap, Number next) {
  gap.next = next;
  gap.found = now_();
  waiting_.push_back(gap);
}

void StreamWatch::missed(Number number) {
  ++inGaps_;
  if (!gap_) gap_ = Gap{number, number};
  // The first numbers after a long gap have taken slots of numbers within it.
  const auto within = std::exchange(gap_->unknown, 0);
  inGaps_ += within;
  unknown_ -= within;
  gap_->last = number;
  if (course_.isLastBeforeEnd(number)) gap_->hasEnd = true;
}

void StreamWatch::judge(Clock::time_point now) {
  std::erase_if(waiting_, [&](const Gap& gap) {
    if (isExplained(gap)) return true;
    if (now < gap.found + reportTakes) return false;
    complain(gap, "although the stream was open");
    return true;
  });
}

// Uses up the break. Numbers between the gap and the next one seen may be missing, too.
bool StreamWatch::isExplained(const Gap& gap) {
  const auto from = timeOf(gap.last) - clocksDiffer;
  const auto to = timeOf(*gap.next) + mostLate;
  const auto found = std::find_if(breaks_.begin(), breaks_.end(),
                                  [&](auto time) { return time >= from && time <= to; });
  if (found == breaks_.end()) return false;
  judgeEnd(gap, *found);
  breaks_.erase(found);
  return true;
}

void StreamWatch::judgeEnd(const Gap& gap, Clock::time_point opened) {
  if (gap.last < gap.first) return;
  const bool isLate =
      course_.isFirstAfterEnd(gap.first) && !gap.hasEnd && opened > timeOf(gap.first) + joinsInTime;
  if (isLate || !(gap.hasEnd || course_.isFirstAfterEnd(gap.first))) return;
  if (wasDisturbed(timeOf(gap.first) - recovery, timeOf(*gap.next) + clocksDiffer)) return;
  complain(gap, gap.hasEnd ? "although the server sent them before it ended the stream in order"
                           : "although the stream was opened in time for them");
}

bool StreamWatch::wasDisturbed(Clock::time_point from, Clock::time_point to) const {
  return std::any_of(disturbances_.begin(), disturbances_.end(),
                     [&](auto time) { return time >= from && time <= to; });
}

void StreamWatch::forget() {
  if (newest_ == 0) return;
  while (!breaks_.empty() && timeOf(newest_) > breaks_.front() + clocksDiffer + reportTakes) {
    breaks_.pop_front();
  }
  while (!disturbances_.empty() && timeOf(newest_) > disturbances_.front() + disturbancesKept) {
    disturbances_.pop_front();
  }
}

void StreamWatch::complain(const Gap& gap, const std::string& problem) {
  if (problems_.size() >= mostProblems) return;
  problems_.push_back(course_.stream + " numbers " + std::to_string(gap.first) + " to " +
                      std::to_string(gap.last) + " did not arrive, " + problem);
}

}  // namespace soak
