// Where the simulator serves, and how it ends.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <string>
#include <thread>

#include "tests/tools/sim/SimTest.h"

namespace {

using grpc::StatusCode;

TEST_F(ObeyingSim, HasNoOtherMethods) {
  RawCall call(sim.engineTarget(), "/sonalith.grpcengine.Engine/GetParams");
  EXPECT_EQ(replyTo(call), (Reply{StatusCode::UNIMPLEMENTED, {}}));
}

TEST_F(ObeyingSim, ServesEachServiceOnlyAtItsAddress) {
  EXPECT_NE(sim.metersTarget(), sim.engineTarget());
  EXPECT_EQ(setParams(sim.metersTarget()), (Reply{StatusCode::UNIMPLEMENTED, {}}));
  RawCall call(sim.engineTarget(), fastPath);
  EXPECT_EQ(replyTo(call), (Reply{StatusCode::UNIMPLEMENTED, {}}));
  EXPECT_FALSE(sim.hasEvent("open"));
  EXPECT_FALSE(sim.hasEvent("SetParams"));
}

TEST(Sim, ServesBothServicesAtOneAddress) {
  const auto target = unusedTarget();
  SimProcess sim(target, target);
  EXPECT_EQ(sim.metersTarget(), target);
  EXPECT_EQ(sim.engineTarget(), target);
  EXPECT_EQ(setParams(target), (Reply{StatusCode::OK, {""}}));
  RawCall call(target, slowPath);
  EXPECT_EQ(sim.waitEvent("open"), "open slow 1 - deadline=none metadata=-");
}

TEST(Sim, LeavesOutAServiceWithoutAnAddress) {
  ToolProcess sim({"sim", "--commands", "--meters", "", "--engine", "127.0.0.1:0"});
  sim.closeInput();
  EXPECT_EQ(sim.waitExit(), 0);
  ASSERT_EQ(sim.lines().size(), 1u);
  EXPECT_EQ(sim.lines()[0].rfind("engine 127.0.0.1:", 0), 0u);
}

TEST_F(ObeyingSim, EndsWithItsInput) {
  EXPECT_EQ(sim.quit(), 0);
}

TEST(Sim, EndsAtQuit) {
  ToolProcess sim({"sim", "--commands", "--meters", "127.0.0.1:0", "--engine", "127.0.0.1:0"});
  sim.writeLine("quit");
  sim.writeLine("sync never");
  EXPECT_EQ(sim.waitExit(), 0);
  EXPECT_FALSE(sim.hasLine("sync"));
}

TEST(Sim, CarriesOutALastLineWithoutANewline) {
  ToolProcess sim({"sim", "--commands", "--meters", "127.0.0.1:0", "--engine", ""});
  sim.write("sync first\nsync la");
  sim.write("st");
  sim.closeInput();
  EXPECT_EQ(sim.waitExit(), 0);
  EXPECT_EQ(linesFrom(1, sim), (Lines{"sync first", "sync last"}));
}

TEST_F(ObeyingSim, CancelsOpenStreamsWhenItEnds) {
  auto call = fastCall();
  sim.waitEvent("open fast 1 ");
  EXPECT_EQ(sim.quit(), 0);
  EXPECT_EQ(call.read(), std::nullopt);
  EXPECT_NE(call.finish(), StatusCode::OK);
  EXPECT_TRUE(sim.hasEvent("closed fast 1 cancelled"));
}

// An idle call does not delay the end, and an ending call is not cut off.
TEST_F(ObeyingSim, LetsEndingCallsEnd) {
  auto idle = slowCall();
  sim.waitEvent("open slow 1 ");
  auto ending = fastCall();
  sim.waitEvent("open fast 1 ");
  sim.command(sendUnreadMessages());
  sim.command("end fast DATA_LOSS");
  std::thread quitting([this] { EXPECT_EQ(sim.quit(), 0); });
  const auto idleReply = replyTo(idle);
  const auto endingReply = replyTo(ending);
  quitting.join();
  EXPECT_NE(idleReply.code, StatusCode::OK);
  EXPECT_EQ(endingReply.code, StatusCode::DATA_LOSS);
  EXPECT_TRUE(endingReply.messages == unreadMessages());
}

TEST(Sim, EndsByItselfAfterTheGivenTime) {
  ToolProcess sim({"sim", "--meters", "127.0.0.1:0", "--engine", "127.0.0.1:0", "--for", "0.01"});
  EXPECT_EQ(sim.waitExit(), 0);
  EXPECT_EQ(sim.lines().size(), 2u);
}

class EachSignal : public testing::TestWithParam<int> {};

INSTANTIATE_TEST_SUITE_P(, EachSignal, testing::Values(SIGINT, SIGTERM),
                         [](const auto& test) { return test.param == SIGINT ? "INT" : "TERM"; });

TEST_P(EachSignal, EndsAPlayingSimAndItsStreams) {
  ToolProcess sim({"sim", "--meters", "127.0.0.1:0", "--engine", "", "--rate-fast", "1000"});
  const auto target = sim.waitLine("meters ").substr(7);
  RawCall call(target, fastPath);
  ASSERT_EQ(call.read(), "");
  sim.signal(GetParam());
  EXPECT_EQ(sim.waitExit(), 130);
  call.readAll();
  EXPECT_NE(call.finish(), StatusCode::OK);
  SimProcess portIsFree(target, "");
}

TEST_P(EachSignal, EndsAnObeyingSimAndAllItsCalls) {
  ToolProcess sim({"sim", "--commands", "--meters", "127.0.0.1:0", "--engine", "127.0.0.1:0"});
  const auto meters = sim.waitLine("meters ").substr(7);
  const auto engine = sim.waitLine("engine ").substr(7);
  sim.writeLine("engine hold");
  sim.writeLine("sync held");
  sim.waitLine("sync held");
  RawCall idle(meters, slowPath);
  sim.waitLine("open slow 1 ");
  RawCall busy(meters, fastPath);
  sim.waitLine("open fast 1 ");
  RawCall held(engine, setParamsPath);
  sim.waitLine("SetParams 1 ");
  sim.writeLine("send fast 01 0");
  EXPECT_EQ(busy.read(), "\x01");
  sim.signal(GetParam());
  EXPECT_EQ(sim.waitExit(), 130);
  EXPECT_TRUE(sim.hasLine("closed slow 1 cancelled"));
  EXPECT_TRUE(sim.hasLine("closed fast 1 cancelled"));
  EXPECT_TRUE(sim.hasLine("closed SetParams 1 cancelled"));
}

}  // namespace
