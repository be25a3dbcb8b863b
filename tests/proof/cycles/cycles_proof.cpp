// The module starts and stops many times under traffic, and the process does not grow: with the
// module loaded all the time, with the module loaded anew each time, and with several instances at
// the same time.
#include <dlfcn.h>

#include <array>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "tests/module/grpc-gateway/flows/FlowTest.h"
#include "tests/proof/Proof.h"
#include "tests/proof/Trend.h"
#include "tests/proof/stop/GrpcGate.h"

namespace proof {
namespace {

using standin::SlotSet;
using std::chrono::steady_clock;

// A short run has too few cycles to distinguish little growth from memory that gRPC has not freed
// yet.
TrendLimits limits() {
  // The context of one payload alone has more bytes than this.
  double heap = isFull() ? 200 : 4000;
  // In a process with the address sanitizer, the loader keeps about 4,200 bytes for each time that
  // a library with gRPC's dependencies is loaded and unloaded, even if nothing of it is called.
  if (Trend::isSanitized()) heap += 5000;
  // One more thread or descriptor in a hundred cycles, or in ten.
  const double count = isFull() ? 0.01 : 0.1;
  TrendLimits all{.heap = heap, .resident = {}, .threads = count, .descriptors = count};
  // A page in four cycles.
  if (isFull()) all.resident = 1024;
  return all;
}

// One of several places: servers of its own, and an instance under a name of its own.
class Place {
 public:
  explicit Place(const std::string& name)
      : name_(name),
        config_(files_.write("gateway.conf",
                             flowConfiguration(servers_.metersTarget(), servers_.engineTarget()) +
                                 "[EngineInt]\nParam=Key=delay." + name + " CustomKey=delay\n" +
                                 "[MetersFloat]\nMeter=Key=level Type=fast CustomKey=level\n")) {}

  const std::string& name() const { return name_; }

  void startOnly(standin::Engine& engine, const standin::LoadedModule& module) {
    instance_ = std::make_unique<standin::ModuleInstance>(module, engine, name_);
    ASSERT_EQ(instance_->start(config_), 0);
  }

  // Starts, and returns when both streams carry messages as fast as possible.
  void start(standin::Host& host, standin::Engine& engine, const standin::LoadedModule& module) {
    startOnly(engine, module);
    servers_.waitEvent("open fast ");
    servers_.waitEvent("open slow ");
    const std::string message = Batch().addFloat("level", 1).addString("last.one", name_).hex();
    servers_.command("send fast " + message + " 0");
    servers_.command("send slow " + message + " 0");
    for (const SlotSet set : {SlotSet::Fast, SlotSet::Slow}) {
      ASSERT_TRUE(host.waitUntil(
          [&] { return instance_->slot(set, "last_one").read() == standin::SlotValue(name_); }));
    }
  }

  // The next call at this place's server has this place's key, whichever thread notified of it.
  void expectCall() {
    const std::string call = servers_.waitEvent("SetParams ");
    EXPECT_NE(call.find(toHex("delay." + name_)), call.npos) << call;
  }

  void stop() {
    instance_->stop();
    EXPECT_TRUE(instance_->hostBytesIntact());
    instance_.reset();
    servers_.forgetEvents();
  }

 private:
  const std::string name_;
  TemporaryFolder files_;
  SimProcess servers_;
  const std::string config_;
  std::unique_ptr<standin::ModuleInstance> instance_;
};

// One notification with a change for every place.
void change(standin::Engine& engine, const std::vector<std::unique_ptr<Place>>& places) {
  standin::KeyValueList changes;
  for (const auto& place : places) changes.addInt((place->name() + ".delay").c_str(), 1);
  engine.notify(&changes);
}

class Cycles : public ::testing::Test {
 protected:
  void addPlaces(int count) {
    for (int i = 1; i <= count; ++i) {
      places_.push_back(std::make_unique<Place>("gateway-" + std::to_string(i)));
    }
  }

  // Does the work at all places at the same time, on a thread for each.
  template <class Work>
  void atAllPlaces(Work work) {
    std::vector<std::future<void>> working;
    for (const auto& place : places_) {
      working.push_back(std::async(std::launch::async, [&work, &place] { work(*place); }));
    }
    for (auto& each : working) each.get();
  }

  // Loads the module, starts it, stops it and unloads it at once. Each place is either always
  // stopped under traffic or always before it, so that its events are never those of the other.
  void brieflyLoad(bool underTraffic, bool afterAChange) {
    standin::Host host;
    standin::Engine engine;
    Place& place = *places_[underTraffic ? 0 : 1];
    {
      const standin::LoadedModule module(GATEWAY_MODULE);
      if (underTraffic) {
        place.start(host, engine, module);
      } else {
        place.startOnly(engine, module);
      }
      if (afterAChange) change(engine, places_);
      place.stop();
    }
    EXPECT_EQ(host.outstanding(), standin::Outstanding{});
    EXPECT_EQ(host.violations(), std::vector<std::string>{});
  }

  // One start and stop. Each has its own host, whose records would otherwise grow.
  void cycle(const standin::LoadedModule& module) {
    const int payloadsBefore = grpcUse().contexts;
    const auto streams = 2 * static_cast<int>(places_.size());
    standin::Host host;
    standin::Engine engine;
    atAllPlaces([&](Place& place) { place.start(host, engine, module); });
    atAllPlaces([&](Place&) { change(engine, places_); });
    atAllPlaces([&](Place& place) { place.expectCall(); });
    // A stop right at the end of a call leaks the call, which would look like growth.
    ASSERT_TRUE(host.waitUntil([&] { return grpcUse().contexts - payloadsBefore == streams; }));
    atAllPlaces([](Place& place) { place.stop(); });
    EXPECT_EQ(grpcUse().contexts, payloadsBefore);
    EXPECT_EQ(host.outstanding(), standin::Outstanding{});
    EXPECT_EQ(host.violations(), std::vector<std::string>{});
  }

  // `count` cycles, or as many as a soak takes.
  template <class Cycle>
  void run(const char* what, std::uint64_t count, Cycle once) {
    const auto end = steady_clock::now() + soak();
    Trend trend(std::max<std::uint64_t>(5, count / 5), "cycle");
    std::uint64_t done = 0;
    for (; (done < count || steady_clock::now() < end) && !HasFailure(); ++done) {
      once();
      trend.awaitFewThreads();
      trend.sample();
    }
    report({"Cycles",
            what,
            "",
            {{"cycles under traffic", done}},
            "nothing grows",
            {},
            trend.figures(limits())});
  }

  std::vector<std::unique_ptr<Place>> places_;
};

TEST_F(Cycles, OfStartAndStopDoNotGrow) {
  addPlaces(1);
  const standin::LoadedModule module(GATEWAY_MODULE);
  run("start and stop while the module stays loaded", scaled(25, 1000), [&] { cycle(module); });
}

TEST_F(Cycles, OfLoadingAndUnloadingDoNotGrow) {
  addPlaces(1);
  run("dlopen, start, stop, dlclose", scaled(15, 200), [&] {
    { cycle(standin::LoadedModule(GATEWAY_MODULE)); }
    EXPECT_EQ(dlopen(GATEWAY_MODULE, RTLD_NOW | RTLD_NOLOAD), nullptr) << "it is still loaded";
  });
}

// Whatever still ran in the module's code would crash. Memory is not judged: a stop right after a
// change may leak its call.
TEST_F(Cycles, OfUnloadingRightAfterTheStopLeaveNoCodeBehind) {
  addPlaces(2);
  const std::uint64_t unloads = scaled(40, 1000);
  for (std::uint64_t i = 0; i < unloads && !HasFailure(); ++i) {
    brieflyLoad(i % 2 == 0, i / 2 % 2 == 0);
    EXPECT_EQ(dlopen(GATEWAY_MODULE, RTLD_NOW | RTLD_NOLOAD), nullptr) << "it is still loaded";
  }
  report({"Hosts of every kind",
          "one that calls dlclose right after the stop",
          "",
          {{"unloads, right after a start, under traffic or right after a change", unloads}},
          "the module is gone from the process, and nothing runs or waits in it"});
}

TEST_F(Cycles, OfSeveralInstancesDoNotGrow) {
  addPlaces(4);
  const standin::LoadedModule module(GATEWAY_MODULE);
  run("4 instances started, notified and stopped at the same time", scaled(8, 250),
      [&] { cycle(module); });
}

}  // namespace
}  // namespace proof
