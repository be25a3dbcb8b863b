// A host whose wall clock steps back and forth all the time.
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "tests/proof/hosts/HostTest.h"
#include "tests/proof/stop/GrpcGate.h"

namespace proof {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

// While this lives, moves the clock a second forward and back again, over and over. A deadline that
// gRPC converts at that moment comes as much later, so a longer step could hold up a stop for long.
class RestlessClock {
 public:
  RestlessClock() : stepping_([this](const std::stop_token& over) { step(over); }) {}

  std::uint64_t steps() const { return steps_; }

 private:
  void step(const std::stop_token& over) {
    constexpr milliseconds pause{5};
    std::unique_lock lock(mutex_);
    for (seconds next = aStep; !over.stop_requested(); next = -next) {
      clock_.step(next);
      ++steps_;
      waiting_.wait_for(lock, over, pause, [] { return false; });
    }
  }

  static constexpr seconds aStep{1};
  MovedClock clock_;
  std::atomic<std::uint64_t> steps_{0};
  std::mutex mutex_;
  std::condition_variable_any waiting_;
  std::jthread stepping_;  // ends before the clock
};

class HostWithARestlessClock : public HostTest {};

TEST_F(HostWithARestlessClock, FlowsStopsAndRetries) {
  const std::uint64_t rounds = scaled(3, 300);
  const RestlessClock clock;
  for (std::uint64_t round = 0; round < rounds && !HasFailure(); ++round) {
    startFlowing(entries);
    expectFlow();
    expectFlow();
    stopFlowing();
    servers.forgetEvents();
  }
  std::vector<Measured> figures;
  const std::uint64_t retries = scaled(0, 10);
  startFlowing(entries);
  for (std::uint64_t retry = 0; retry < retries && !HasFailure(); ++retry) {
    servers.forgetEvents();
    const auto ended = steady_clock::now();
    servers.command("end fast OK");
    servers.waitEvent("open fast ");
    const auto time = std::chrono::duration_cast<milliseconds>(steady_clock::now() - ended);
    figures.push_back(measured("retry after", static_cast<double>(time.count()), ".0f", "ms"));
    expectFlow();
  }
  stopFlowing();
  report({hostsPart,
          "one whose wall clock steps a second forward and back, every 5 ms",
          "",
          {{"starts, flows and stops", rounds}, {"retries", retries}, {"steps", clock.steps()}},
          "values arrive, changes are sent, stops end, streams come back",
          {},
          figures});
}

}  // namespace
}  // namespace proof
