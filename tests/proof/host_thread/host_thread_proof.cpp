// The host's threads do not wait for the network: a start and a notification take as long as with
// healthy servers, in whatever condition the servers are. Only a stop may wait, for a stream's
// retry and for calls in flight.
#include <future>
#include <map>
#include <memory>

#include "tests/module/grpc-gateway/GatewayTest.h"
#include "tests/proof/Proof.h"
#include "tests/proof/host_thread/ThreadTime.h"
#include "tests/support/SilentPeer.h"
#include "tests/support/SimProcess.h"

namespace {

using standin::KeyValueList;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr char part[] = "Host's thread";

// A lost connection request is repeated after a second, a silent peer is given up after twenty, and
// a frozen one never answers: a thread that waits for any of them sleeps longer than this. Whatever
// else puts a thread to sleep, such as a lock that another thread holds, is shorter.
constexpr milliseconds longestSleep{500};

// Limits for the median call: how long it sleeps, and how long it runs and sleeps in all. Both are
// far above what a call takes on any machine, and far below any wait that a change might bring in.
constexpr milliseconds usualSleep{20};
constexpr milliseconds usualTime{100};

// One of many stops that wait for nothing takes less than this.
constexpr milliseconds quickestStop{150};

// How much longer the median of a call's own time may be than with healthy servers.
constexpr int usualFactor = 10;
// A factor says nothing about times below this.
constexpr milliseconds noise{2};

// A stream that has failed waits up to five seconds for its retry; the rest allows for a busy
// machine.
constexpr seconds longestRetry{5 + 10};
// gRPC gives up a connection attempt, or a peer that answers no ping, after twenty seconds.
constexpr seconds longestCall{20 + 40};

enum class Servers { Healthy, Absent, Frozen, FrozenLater, Mute, BlackHole };

std::string nameOf(Servers servers) {
  static const std::map<Servers, std::string> names = {
      {Servers::Healthy, "healthy servers"},
      {Servers::Absent, "absent servers, which refuse connections"},
      {Servers::Frozen, "servers frozen before the start"},
      {Servers::FrozenLater, "servers frozen while the streams are open"},
      {Servers::Mute, "mute servers, which accept connections and send nothing"},
      {Servers::BlackHole, "a black hole, which loses all packets"},
  };
  return names.at(servers);
}

// Both services at one place, in one of these conditions.
class Place {
 public:
  explicit Place(Servers servers) : servers_(servers) {
    switch (servers) {
      case Servers::Healthy:
      case Servers::Frozen:
      case Servers::FrozenLater:
        sim_ = std::make_unique<SimProcess>();
        if (servers == Servers::Frozen) sim_->freeze();
        break;
      case Servers::Absent:
        meters_ = engine_ = unusedTarget();
        return;
      case Servers::Mute:
        silence_ = std::make_unique<SilentPeer>(SilentPeer::Kind::Mute);
        break;
      case Servers::BlackHole:
        silence_ = std::make_unique<SilentPeer>(SilentPeer::Kind::BlackHole);
        break;
    }
    meters_ = sim_ ? sim_->metersTarget() : silence_->target();
    engine_ = sim_ ? sim_->engineTarget() : silence_->target();
  }

  std::string configuration() const {
    return "[Meters]\nTarget=" + meters_ + "\n[Engine]\nTarget=" + engine_ +
           "\n[MetersFloat]\nMeter=Key=level\n[EngineInt]\nParam=Key=delay CustomKey=delay\n";
  }

  // Call this once an instance has started.
  void freezeLater() {
    if (servers_ != Servers::FrozenLater) return;
    sim_->waitEvent("open fast ");
    sim_->waitEvent("open slow ");
    sim_->freeze();
  }

  // Ends all waiting for these servers; false if there was nothing to wait for.
  bool release() {
    const bool isFrozen = sim_ && servers_ != Servers::Healthy;
    const bool holds = isFrozen || silence_;
    silence_.reset();
    if (isFrozen) sim_->thaw();
    return holds;
  }

 private:
  const Servers servers_;
  std::unique_ptr<SimProcess> sim_;
  std::unique_ptr<SilentPeer> silence_;
  std::string meters_;
  std::string engine_;
};

class HostThread : public GatewayTest {
 protected:
  HostThread() { host.setChoices({.keepRecords = false}); }

  std::string write(const Place& place) {
    return files.write("gateway" + std::to_string(++written_) + ".conf", place.configuration());
  }

  // `usual` are the times with healthy servers.
  static void expectNoWait(const ThreadTimes& times, const ThreadTimes& usual) {
    const Nanoseconds most = std::max<Nanoseconds>(usual.median(&ThreadTime::own), noise);
    EXPECT_LT(times.median(&ThreadTime::own), most * usualFactor);
  }

  static void reportStops(Servers servers, const ThreadTimes& stops);

  // Times without the wait for a processor, and the part of them that was sleep.
  static std::vector<proof::Measured> figuresOf(const ThreadTimes& times) {
    return {figure("median", times.median(&ThreadTime::own)).within(usualTime),
            longest("longest", times.longest(&ThreadTime::own)),
            figure("median sleep", times.median(&ThreadTime::asleep)).within(usualSleep),
            longest("longest sleep", times.longest(&ThreadTime::asleep)).within(longestSleep)};
  }

  static proof::Measured figure(const char* name, Nanoseconds time) {
    return proof::measured(name, ::milliseconds(time), ".2f", "ms");
  }
  static proof::Measured longest(const char* name, Nanoseconds time) {
    return proof::mostOf(name, ::milliseconds(time), ".2f", "ms");
  }

 private:
  int written_ = 0;
};

// Stops all instances at the same time.
ThreadTimes stopAll(const std::vector<std::unique_ptr<standin::ModuleInstance>>& instances) {
  std::vector<std::future<ThreadTime>> stopping;
  for (const auto& instance : instances) {
    stopping.push_back(std::async(std::launch::async, [&instance = *instance] {
      return measured([&] { instance.stop(); });
    }));
  }
  ThreadTimes times;
  for (auto& stop : stopping) times.add(stop.get());
  return times;
}

// Streams whose servers refuse connections wait for their retry.
void HostThread::reportStops(Servers servers, const ThreadTimes& stops) {
  std::vector<proof::Measured> figures = {
      figure("median", stops.median(&ThreadTime::passed)),
      longest("longest", stops.longest(&ThreadTime::passed)).within(longestRetry)};
  if (servers != Servers::Absent) {
    figures.push_back(longest("quickest", stops.least(&ThreadTime::own)).within(quickestStop));
  }
  proof::report({part,
                 "a stop without calls in flight",
                 nameOf(servers),
                 {{"stops, many at the same time", stops.count()}},
                 "it waits at most for a stream's retry",
                 {},
                 figures});
}

TEST_F(HostThread, DoesNotWaitForServersAtAStart) {
  const std::uint64_t starts = proof::scaled(20, 200);
  ThreadTimes usual;
  for (const Servers servers :
       {Servers::Healthy, Servers::Absent, Servers::Frozen, Servers::Mute, Servers::BlackHole}) {
    SCOPED_TRACE(nameOf(servers));
    Place place(servers);
    const std::string path = write(place);
    std::vector<std::unique_ptr<standin::ModuleInstance>> instances;
    ThreadTimes times;
    for (std::uint64_t i = 0; i < starts; ++i) {
      instances.push_back(std::make_unique<standin::ModuleInstance>(module, engine));
      int result = -1;
      times.add(measured([&] { result = instances.back()->start(path); }));
      ASSERT_EQ(result, 0);
    }
    if (servers == Servers::Healthy) usual = times;
    expectNoWait(times, usual);
    proof::report({part,
                   "a start",
                   nameOf(servers),
                   {{"starts", starts}},
                   "it takes its usual time; the wait for a processor does not count",
                   {},
                   figuresOf(times)});

    reportStops(servers, stopAll(instances));
    place.release();
    expectNothingLeft();
  }
}

// An instance, its servers, and the times of its notifications.
struct Notified {
  Notified(const standin::LoadedModule& module, Servers condition)
      : servers(condition), place(condition), instance(module, engine) {}

  void notify(int value) {
    KeyValueList changes;
    changes.addInt("gateway.delay", value);
    times.add(measured([&] { engine.notify(&changes); }));
  }

  const Servers servers;
  Place place;
  standin::Engine engine;
  standin::ModuleInstance instance;
  ThreadTimes times;
};

TEST_F(HostThread, DoesNotWaitForServersAtANotification) {
  const auto notifications = static_cast<int>(proof::scaled(200, 5000));
  std::vector<std::unique_ptr<Notified>> all;
  for (const Servers servers : {Servers::Healthy, Servers::Absent, Servers::Frozen,
                                Servers::FrozenLater, Servers::Mute, Servers::BlackHole}) {
    SCOPED_TRACE(nameOf(servers));
    all.push_back(std::make_unique<Notified>(module, servers));
    Notified& one = *all.back();
    ASSERT_EQ(one.instance.start(write(one.place)), 0);
    one.place.freezeLater();
    for (int i = 0; i < notifications; ++i) one.notify(i);
    expectNoWait(one.times, all.front()->times);
    proof::report({part,
                   "a notification",
                   nameOf(servers),
                   {{"notifications", one.times.count()}},
                   "it takes its usual time; the wait for a processor does not count",
                   {},
                   figuresOf(one.times)});
  }

  // A stop waits for the calls: if no server answers, until gRPC gives them up.
  std::vector<std::future<ThreadTime>> stopping;
  std::vector<bool> wasReleased;
  for (const auto& one : all) {
    wasReleased.push_back(!proof::isFull() && one->place.release());
    stopping.push_back(std::async(std::launch::async, [&instance = one->instance] {
      return measured([&] { instance.stop(); });
    }));
  }
  for (std::size_t i = 0; i < all.size(); ++i) {
    const ThreadTime stop = stopping[i].get();
    proof::report({part,
                   "a stop with calls in flight",
                   nameOf(all[i]->servers) + (wasReleased[i] ? ", released before the stop" : ""),
                   {{"stops", 1}},
                   "it waits for the calls, until gRPC gives them up",
                   {},
                   {figure("stops of", stop.passed).within(longestCall)}});
  }
  for (const auto& one : all) one->place.release();
  expectNothingLeft();
}

}  // namespace
