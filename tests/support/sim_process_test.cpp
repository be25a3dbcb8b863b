// The child processes that tests use.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "meters.pb.h"
#include "tests/support/RawCall.h"
#include "tests/support/SimProcess.h"

namespace {

using grpc::StatusCode;

TEST(SimProcess, EndsItsStreamsWhenKilledAndComesBackAtTheSameAddress) {
  SimProcess first;
  RawCall call(first.metersTarget(), fastPath);
  first.waitEvent("open fast 1 ");
  first.kill();
  EXPECT_EQ(replyTo(call), (Reply{StatusCode::UNAVAILABLE, {}}));
  SimProcess second(first.metersTarget(), first.engineTarget());
  EXPECT_EQ(second.metersTarget(), first.metersTarget());
  RawCall again(second.metersTarget(), fastPath);
  second.waitEvent("open fast 1 ");
}

TEST(SimProcess, AnswersNothingWhileFrozen) {
  SimProcess sim;
  sim.freeze();
  constexpr auto shortly = std::chrono::milliseconds(100);
  RawCall early(sim.engineTarget(), setParamsPath, "", [&](auto& context) {
    context.set_deadline(std::chrono::system_clock::now() + shortly);
  });
  EXPECT_EQ(replyTo(early).code, StatusCode::DEADLINE_EXCEEDED);
  sim.command("engine reply 01");
  sim.thaw();
  sim.command("engine reply 02");
  EXPECT_EQ(setParams(sim.engineTarget()), (Reply{StatusCode::OK, {"\x02"}}));
}

TEST(SimProcess, CanBeKilledOrDestroyedWhileFrozen) {
  SimProcess killed;
  killed.freeze();
  killed.kill();
  SimProcess left;
  left.freeze();
}

TEST(SimProcess, ReturnsEachEventOnceAndInOrder) {
  SimProcess sim;
  sim.command("sync a1");
  sim.command("nonsense");
  sim.command("sync a2");
  EXPECT_EQ(sim.waitEvent("sync a"), "sync a1");
  EXPECT_EQ(sim.waitEvent("sync a"), "sync a2");
  EXPECT_EQ(sim.waitEvent("error unknown command").rfind("error unknown command", 0), 0u);
  EXPECT_TRUE(sim.hasEvent("sync a1"));
  EXPECT_FALSE(sim.hasEvent("sync b"));
}

TEST(SimProcess, ReportsItsOutputWhenAnEventCanNoLongerCome) {
  SimProcess sim("", SimProcess::anyPort);
  sim.command("sync last");
  sim.quit();
  try {
    sim.waitEvent("open");
    FAIL() << "there was an event";
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(error.what(), "gatewayctl: no line \"open\" came; its output so far:\nengine " +
                                sim.engineTarget() + "\nsync last\nsync 1\nand its log:\n");
  }
  EXPECT_THROW(sim.command("sync more"), std::runtime_error);
}

TEST(SimProcess, DiesWithTheThreadThatStartedIt) {
  std::unique_ptr<ToolProcess> orphan;
  std::thread([&] {
    orphan = std::make_unique<ToolProcess>(
        std::vector<std::string>{"sim", "--meters", "127.0.0.1:0", "--engine", ""});
    orphan->waitLine("meters ");
  }).join();
  EXPECT_EQ(orphan->waitExit(), 128 + SIGKILL);
}

TEST(FreePort, HasNoListener) {
  const auto target = unusedTarget();
  EXPECT_EQ(setParams(target).code, StatusCode::UNAVAILABLE);
  SimProcess sim("", target);
  EXPECT_EQ(setParams(target).code, StatusCode::OK);
}

TEST(ToHex, WritesTwoDigitsPerByteAndADashForNothing) {
  EXPECT_EQ(toHex(std::string_view("\x00\x0f\xa0\xff", 4)), "000fa0ff");
  EXPECT_EQ(toHex(""), "-");
  EXPECT_EQ(toHex(sonalith::grpc::Meter()), "-");
  sonalith::grpc::KeyValue pair;
  pair.set_key("a");
  EXPECT_EQ(toHex(pair), "0a0161");
}

}  // namespace
