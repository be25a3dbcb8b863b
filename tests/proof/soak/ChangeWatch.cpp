#include "tests/proof/soak/ChangeWatch.h"

#include <algorithm>

namespace soak {
namespace {

using std::chrono::seconds;

// Longer than any fault holds a call back.
constexpr seconds mayTake{120};
constexpr seconds faultsKept{300};
// How long before or after the report of a fault its first lost change may have been sent, on a
// busy machine.
constexpr seconds before{6};
constexpr seconds after{3};
// gRPC tries to connect again at growing intervals, of up to two minutes.
constexpr seconds mostLost{180};

}  // namespace

std::int32_t ChangeWatch::send() {
  changes_.push_back({now_()});
  return static_cast<std::int32_t>(sent());
}

void ChangeWatch::arrived(std::int64_t number) {
  const bool isKnown = number >= first_ && number <= sent();
  auto* const change = isKnown ? &changes_[static_cast<std::size_t>(number - first_)] : nullptr;
  if (change == nullptr || change->hasArrived) {
    problems_.push_back("change " + std::to_string(number) +
                        " arrived twice, very late or without being sent");
    return;
  }
  change->hasArrived = true;
  ++arrived_;
  latest_ = std::max(latest_, number);
}

bool ChangeWatch::haveArrivedAfter(std::int64_t number) const {
  const auto known = std::max<std::int64_t>(0, number + 1 - first_);
  return std::all_of(changes_.begin() + std::min<std::int64_t>(known, std::ssize(changes_)),
                     changes_.end(), [](const Change& change) { return change.hasArrived; });
}

void ChangeWatch::judge() {
  const auto now = now_();
  while (!changes_.empty() && now > changes_.front().sent + mayTake) judgeFirst();
  while (!faults_.empty() && now > faults_.front() + faultsKept) faults_.pop_front();
}

void ChangeWatch::judgeAll() {
  while (!changes_.empty()) judgeFirst();
  endRun();
}

void ChangeWatch::judgeFirst() {
  const Change change = changes_.front();
  if (change.hasArrived) {
    endRun();
  } else {
    lose(change);
  }
  changes_.pop_front();
  ++first_;
}

void ChangeWatch::lose(const Change& change) {
  ++lost_;
  if (!run_) run_ = Run{first_, change.sent, change.sent};
  run_->last = change.sent;
  if (run_->last - run_->first < mostLost || !problems_.empty()) return;
  problems_.push_back("no change has arrived for minutes, from number " +
                      std::to_string(run_->number) + " on");
}

void ChangeWatch::endRun() {
  if (!run_) return;
  const auto from = run_->first - after;
  const auto to = run_->first + before;
  const bool isExplained = std::any_of(faults_.begin(), faults_.end(),
                                       [&](auto time) { return time >= from && time <= to; });
  if (!isExplained) {
    problems_.push_back("changes from number " + std::to_string(run_->number) +
                        " on were lost, although the service was connected");
  }
  run_.reset();
}

}  // namespace soak
