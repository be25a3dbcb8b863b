// What a thread does with its time. A busy machine lengthens a call by letting the thread wait for
// a processor; only what it sleeps says that it waited for something else.
//
// Threads: each measures itself.
#pragma once

#include <chrono>
#include <string>
#include <vector>

using Nanoseconds = std::chrono::nanoseconds;

struct ThreadTime {
  Nanoseconds passed{};  // by the clock
  Nanoseconds asleep{};  // neither running nor ready to run
  // Running or asleep: what would have passed on an idle machine.
  Nanoseconds own{};
};

// Throws std::runtime_error if the kernel does not tell how long threads wait for a processor.
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

// Many of them.
class ThreadTimes {
 public:
  void add(const ThreadTime& time) { times_.push_back(time); }

  std::size_t count() const { return times_.size(); }
  Nanoseconds median(Nanoseconds ThreadTime::*which) const;
  Nanoseconds longest(Nanoseconds ThreadTime::*which) const;
  // "0.05 ms, at most 0.31 ms": median and maximum.
  std::string text(Nanoseconds ThreadTime::*which) const;

 private:
  std::vector<ThreadTime> times_;
};

std::string milliseconds(Nanoseconds time);
