// How a thread spends its time. On a busy machine a call takes longer because its thread waits for
// a processor; only the time that it sleeps shows that it waits for something else.
//
// Threads: each measures itself.
#pragma once

#include <chrono>
#include <vector>

using Nanoseconds = std::chrono::nanoseconds;

struct ThreadTime {
  Nanoseconds passed{};  // by the clock
  Nanoseconds asleep{};  // neither running nor ready to run
  Nanoseconds own{};     // running or asleep: what would have passed on an idle machine
};

// Throws std::runtime_error if the kernel does not report how long threads wait for a processor.
class ThreadWatch {
 public:
  ThreadWatch();
  ThreadTime stop() const;

 private:
  struct Schedule {
    Nanoseconds running;
    Nanoseconds ready;
  };
  static Schedule schedule();

  Schedule schedule_;
  std::chrono::steady_clock::time_point start_;
};

template <class Action>
ThreadTime measured(Action action) {
  const ThreadWatch watch;
  action();
  return watch.stop();
}

// The times of many calls.
class ThreadTimes {
 public:
  void add(const ThreadTime& time) { times_.push_back(time); }

  std::size_t count() const { return times_.size(); }
  Nanoseconds median(Nanoseconds ThreadTime::*which) const;
  Nanoseconds least(Nanoseconds ThreadTime::*which) const;
  Nanoseconds longest(Nanoseconds ThreadTime::*which) const;

 private:
  std::vector<ThreadTime> times_;
};

double milliseconds(Nanoseconds time);
