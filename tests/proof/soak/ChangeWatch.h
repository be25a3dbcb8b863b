// Judges whether each change of a parameter reached the engine service. Changes are numbered from
// 1. None may arrive twice, and none that was not sent. A fault that ends the service's connections
// may lose changes in a row, from about its time on and for at most three minutes. The order does
// not matter, since calls are independent of each other.
//
// Threads: one at a time.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace soak {

class ChangeWatch {
 public:
  using Clock = std::chrono::steady_clock;
  using Now = std::function<Clock::time_point()>;

  explicit ChangeWatch(Now now = Clock::now) : now_(std::move(now)) {}

  // Returns the number of the change that is about to be sent.
  std::int32_t send();
  void arrived(std::int64_t number);
  // Call this when the simulator reports a fault that ends the service's connections.
  void disconnected() { faults_.push_back(now_()); }

  // Judges the changes that are too old to arrive any more.
  void judge();
  // Judges all. Call this at the end.
  void judgeAll();

  // What is wrong, in sentences; empty if nothing is.
  const std::vector<std::string>& problems() const { return problems_; }

  std::int64_t sent() const { return first_ + static_cast<std::int64_t>(changes_.size()) - 1; }
  std::uint64_t arrived() const { return arrived_; }
  std::uint64_t lost() const { return lost_; }
  // Whether all changes with higher numbers have arrived that are too new to be judged.
  bool haveArrivedAfter(std::int64_t number) const;
  // The highest number that has arrived.
  std::int64_t latest() const { return latest_; }

 private:
  struct Change {
    Clock::time_point sent;
    bool hasArrived = false;
  };
  // Lost changes in a row.
  struct Run {
    std::int64_t number;  // of the first
    Clock::time_point first;
    Clock::time_point last;
  };

  void judgeFirst();
  void lose(const Change& change);
  void endRun();

  const Now now_;
  std::int64_t first_ = 1;      // the number of the first of `changes_`
  std::deque<Change> changes_;  // that have not been judged
  std::optional<Run> run_;      // of the changes judged last
  std::deque<Clock::time_point> faults_;
  std::vector<std::string> problems_;
  std::uint64_t arrived_ = 0;
  std::uint64_t lost_ = 0;
  std::int64_t latest_ = 0;
};

}  // namespace soak
