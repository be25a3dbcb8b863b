#include "tests/proof/host_thread/ThreadTime.h"

#include <algorithm>
#include <ctime>
#include <fstream>
#include <functional>
#include <stdexcept>

ThreadWatch::Schedule ThreadWatch::schedule() {
  std::ifstream file("/proc/thread-self/schedstat");
  // The running time in this file is that of the last tick.
  Nanoseconds::rep runningRoughly = 0;
  Nanoseconds::rep ready = 0;
  if (!(file >> runningRoughly >> ready)) {
    throw std::runtime_error("the kernel does not report how long threads wait for a processor");
  }
  timespec running{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &running);
  return {std::chrono::seconds(running.tv_sec) + Nanoseconds(running.tv_nsec), Nanoseconds(ready)};
}

ThreadWatch::ThreadWatch() : schedule_(schedule()), start_(std::chrono::steady_clock::now()) {}

// The clock is read first, so that the time between the two readings counts as running and never
// as sleep.
ThreadTime ThreadWatch::stop() const {
  const Nanoseconds passed = std::chrono::steady_clock::now() - start_;
  const Schedule now = schedule();
  const Nanoseconds running = now.running - schedule_.running;
  const Nanoseconds ready = now.ready - schedule_.ready;
  return {passed, std::max(passed - running - ready, Nanoseconds(0)),
          std::max(passed - ready, Nanoseconds(0))};
}

Nanoseconds ThreadTimes::median(Nanoseconds ThreadTime::*which) const {
  std::vector<ThreadTime> sorted = times_;
  const auto middle = sorted.begin() + static_cast<std::ptrdiff_t>(sorted.size() / 2);
  std::nth_element(sorted.begin(), middle, sorted.end(),
                   [&](const auto& a, const auto& b) { return a.*which < b.*which; });
  return (*middle).*which;
}

Nanoseconds ThreadTimes::least(Nanoseconds ThreadTime::*which) const {
  return std::invoke(which, *std::ranges::min_element(times_, {}, which));
}

Nanoseconds ThreadTimes::longest(Nanoseconds ThreadTime::*which) const {
  return std::invoke(which, *std::ranges::max_element(times_, {}, which));
}

double milliseconds(Nanoseconds time) {
  return static_cast<double>(time.count()) / 1e6;
}
