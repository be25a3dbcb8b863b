// The host's threads do not wait for the network: start and notification take what they take with
// servers that are well, whatever has become of the servers. A stop may wait, for what is told
// here.
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

// A lost request for a connection is repeated after a second, a silent peer is given up after
// twenty, and one that is frozen answers never: who waits for any of them sleeps longer than this.
// What else puts a thread to sleep, such as a lock that another one holds, is shorter.
constexpr milliseconds longestSleep{500};

// How much more of its own time a call may take than with servers that are well, at the median.
constexpr int usualFactor = 10;
// Below this, a factor says nothing.
constexpr milliseconds noise{2};

// A stream that has failed waits for its retry, up to five seconds; the rest is for a busy machine.
constexpr seconds longestRetry{5 + 10};
// gRPC gives up a connection attempt, or a peer that answers no ping, after twenty seconds.
constexpr seconds longestCall{20 + 40};

enum class Servers { Well, Absent, Frozen, FrozenLater, Mute, BlackHole };

std::string nameOf(Servers servers) {
  static const std::map<Servers, std::string> names = {
      {Servers::Well, "well"},
      {Servers::Absent, "absent (connections are refused)"},
      {Servers::Frozen, "frozen before"},
      {Servers::FrozenLater, "frozen while the streams are open"},
      {Servers::Mute, "mute (connections are made, nothing is said)"},
      {Servers::BlackHole, "a black hole (packets are lost)"},
  };
  return names.at(servers);
}

// The place of both services, in one of these conditions.
class Place {
 public:
  explicit Place(Servers servers) : servers_(servers) {
    switch (servers) {
      case Servers::Well:
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

  // To be called once an instance has started.
  void freezeLater() {
    if (servers_ != Servers::FrozenLater) return;
    sim_->waitEvent("open fast ");
    sim_->waitEvent("open slow ");
    sim_->freeze();
  }

  // Lets go of whoever waits for it; false if there was nothing to wait for.
  bool release() {
    const bool isFrozen = sim_ && servers_ != Servers::Well;
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

  // `usual` are those with servers that are well.
  static void expectNoWait(const ThreadTimes& times, const ThreadTimes& usual) {
    EXPECT_LT(times.longest(&ThreadTime::asleep), longestSleep);
    const Nanoseconds most = std::max<Nanoseconds>(usual.median(&ThreadTime::own), noise);
    EXPECT_LT(times.median(&ThreadTime::own), most * usualFactor);
  }

  static std::string textOf(const ThreadTimes& times) {
    return "median " + times.text(&ThreadTime::own) + " without the wait for a processor; asleep " +
           times.text(&ThreadTime::asleep);
  }

 private:
  int written_ = 0;
};

// What a stop of many instances at once took, by the clock.
std::string stopText(const ThreadTimes& stops) {
  return "median " + stops.text(&ThreadTime::passed);
}

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

TEST_F(HostThread, AStartTakesItsUsualTimeWhateverTheServersDo) {
  const std::uint64_t starts = proof::scaled(20, 200);
  ThreadTimes usual;
  for (const Servers servers :
       {Servers::Well, Servers::Absent, Servers::Frozen, Servers::Mute, Servers::BlackHole}) {
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
    if (servers == Servers::Well) usual = times;
    expectNoWait(times, usual);
    proof::report({part, "start, servers " + nameOf(servers), std::to_string(starts) + " starts",
                   textOf(times)});

    const ThreadTimes stops = stopAll(instances);
    const bool waitsForRetry = servers == Servers::Absent;
    EXPECT_LT(stops.longest(&ThreadTime::passed), longestRetry);
    proof::report(
        {part, "stop, servers " + nameOf(servers), std::to_string(starts) + " stops side by side",
         stopText(stops) + (waitsForRetry ? ": up to the rest of a retry's five seconds" : "")});
    place.release();
    expectNothingLeft();
  }
}

// One instance, its servers and what is measured of it.
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

TEST_F(HostThread, ANotificationTakesItsUsualTimeWhateverTheServersDo) {
  const auto notifications = static_cast<int>(proof::scaled(200, 5000));
  std::vector<std::unique_ptr<Notified>> all;
  for (const Servers servers : {Servers::Well, Servers::Absent, Servers::Frozen,
                                Servers::FrozenLater, Servers::Mute, Servers::BlackHole}) {
    SCOPED_TRACE(nameOf(servers));
    all.push_back(std::make_unique<Notified>(module, servers));
    Notified& one = *all.back();
    ASSERT_EQ(one.instance.start(write(one.place)), 0);
    one.place.freezeLater();
    for (int i = 0; i < notifications; ++i) one.notify(i);
    expectNoWait(one.times, all.front()->times);
    proof::report({part, "notification, servers " + nameOf(servers),
                   std::to_string(notifications) + " notifications", textOf(one.times)});
  }

  // A stop waits for the calls: where nobody answers, until gRPC gives them up.
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
    EXPECT_LT(stop.passed, longestCall);
    const std::string released = wasReleased[i] ? ", let go just before the stop" : "";
    proof::report({part, "stop, calls on their way, servers " + nameOf(all[i]->servers) + released,
                   "1 stop", ::milliseconds(stop.passed)});
  }
  for (const auto& one : all) one->place.release();
  expectNothingLeft();
}

}  // namespace
