// A host that starts two instances at once, from two threads, and stops each from the other thread.
#include <array>
#include <barrier>
#include <memory>
#include <set>
#include <thread>

#include "tests/proof/hosts/HostTest.h"

namespace proof {
namespace {

class HostWithTwoThreads : public HostTest {
 protected:
  using Instances = std::array<std::unique_ptr<standin::ModuleInstance>, 2>;

  void SetUp() override {
    host.setChoices({.keepRecords = false});
    path_ = files.write("gateway.conf", common() + entries);
  }

  Instances makeInstances() {
    return {std::make_unique<standin::ModuleInstance>(module, engine, "gateway"),
            std::make_unique<standin::ModuleInstance>(module, engine, "other")};
  }

  // Both starts begin together, `between` runs once both have ended, and both stops begin together.
  template <class Between>
  void startAndStopCrosswise(Instances& instances, Between between) {
    std::barrier together(3);
    const auto work = [&](standin::ModuleInstance& own, standin::ModuleInstance& others) {
      together.arrive_and_wait();
      EXPECT_EQ(own.start(path_), 0);
      together.arrive_and_wait();
      together.arrive_and_wait();
      others.stop();
    };
    const std::jthread one(work, std::ref(*instances[0]), std::ref(*instances[1]));
    const std::jthread two(work, std::ref(*instances[1]), std::ref(*instances[0]));
    together.arrive_and_wait();
    together.arrive_and_wait();
    between();
    together.arrive_and_wait();
  }

  // Both instances hold both streams, and each sends its own change.
  void awaitFlow() {
    for (const auto* const opened : {"open fast ", "open fast ", "open slow ", "open slow "}) {
      servers.waitEvent(opened);
    }
    standin::KeyValueList changes;
    changes.addInt("gateway.delay", 1).addInt("other.delay", 2);
    notify(changes);
    const std::set<std::string> requests{received(), received()};
    EXPECT_EQ(requests, (std::set<std::string>{requestOf(1), requestOf(2)}));
  }

 private:
  std::string path_;
};

TEST_F(HostWithTwoThreads, StartsTwoInstancesAtOnceAndStopsThemCrosswise) {
  const std::uint64_t rounds = scaled(10, 1000);
  for (std::uint64_t round = 0; round < rounds && !HasFailure(); ++round) {
    auto instances = makeInstances();
    const bool atOnce = round % 2 != 0;
    startAndStopCrosswise(instances, [&] {
      if (!atOnce) awaitFlow();
    });
    for (const auto& each : instances) EXPECT_TRUE(each->hostBytesIntact());
    servers.forgetEvents();
    expectNothingLeft();
  }
  report({hostsPart,
          "one that starts two instances at once from two threads, and stops them crosswise",
          "",
          {{"pairs", rounds}},
          "each instance flows and sends only its own changes; a stop on another thread, also "
          "right after the start, leaves nothing"});
}

}  // namespace
}  // namespace proof
