// Stopping in every state of streams and calls: the lines in their order, and nothing left.
#include <future>
#include <latch>

#include "tests/module/grpc-gateway/flows/FlowTest.h"

namespace {

using standin::KeyValueList;

constexpr char oneParameter[] = "[EngineInt]\nParam=Key=delay CustomKey=delay\n";
constexpr char flushLine[] = "log 1 Flushing tag ";

class Stopping : public FlowTest {
 protected:
  // The log of a stop, its tags replaced by their number of first appearance.
  Journal stopLog() {
    host.clearRecords();
    instance.stop();
    return log();
  }

  static int count(const Journal& lines, const std::string& beginning) {
    int found = 0;
    for (const std::string& line : lines) found += line.starts_with(beginning);
    return found;
  }

  static Journal withoutFlushLines(Journal lines) {
    std::erase_if(lines, [](const std::string& line) { return line.starts_with(flushLine); });
    return lines;
  }

  void change(int value) {
    KeyValueList changes;
    changes.addInt("gateway.delay", value);
    engine.notify(&changes);
  }
};

TEST_F(Stopping, WithBothStreamsQuietCancelsThemAndFlushesOneTagEach) {
  startFlowing();
  deliverFast(Batch());
  deliverSlow(Batch());
  const Journal lines = stopLog();
  EXPECT_EQ(withoutFlushLines(lines), stopSteps);
  EXPECT_EQ(count(lines, flushLine), 2);
  EXPECT_EQ(count(lines, "log 1 Flushing tag (nil)"), 0);
  // The flush lines stand between the start and the end of the flush.
  EXPECT_EQ(lines[6], stopSteps[6]);
  EXPECT_TRUE(lines[7].starts_with(flushLine));
  EXPECT_TRUE(lines[8].starts_with(flushLine));
  EXPECT_NE(lines[7], lines[8]);
  EXPECT_EQ(servers.waitEvent("closed fast "), "closed fast 1 cancelled");
  EXPECT_EQ(servers.waitEvent("closed slow "), "closed slow 1 cancelled");
  expectNothingLeft();
}

TEST_F(Stopping, WithoutAStubFlushesNothing) {
  ASSERT_EQ(start("[Meters]\nEnableFastMeters=false\nEnableSlowMeters=false\n"), 0);
  EXPECT_EQ(stopLog(), stopSteps);
  expectNothingLeft();
}

TEST_F(Stopping, WithOneStreamSwitchedOffFlushesTheOtherAlone) {
  ASSERT_EQ(start("[Meters]\nTarget=" + servers.metersTarget() + "\nEnableSlowMeters=false\n"), 0);
  servers.waitEvent("open fast ");
  const Journal lines = stopLog();
  EXPECT_EQ(withoutFlushLines(lines), stopSteps);
  EXPECT_EQ(count(lines, flushLine), 1);
  expectNothingLeft();
}

TEST_F(Stopping, OpensNoStreamAgain) {
  startFlowing();
  instance.stop();
  servers.waitEvent("closed fast ");
  servers.waitEvent("closed slow ");
  EXPECT_FALSE(servers.hasEvent("open fast 2 "));
  EXPECT_FALSE(servers.hasEvent("open slow 2 "));
}

// Nothing cancels it, so the stop waits for its answer, in the flush.
TEST_F(Stopping, WithAParameterInFlightWaitsForItsAnswer) {
  servers.command("engine hold");
  startFlowing(oneParameter);
  change(1);
  servers.waitEvent("SetParams 1 ");
  host.clearRecords();
  auto stopped = std::async(std::launch::async, [this] { instance.stop(); });
  // Both streams are through, the call is not.
  ASSERT_TRUE(host.waitUntil([&] { return count(log(), flushLine) == 2; }));
  EXPECT_EQ(count(log(), stopSteps.back()), 0);
  servers.command("engine release");
  stopped.get();
  EXPECT_EQ(withoutFlushLines(log()), stopSteps);
  EXPECT_EQ(count(log(), flushLine), 3);
  expectNothingLeft();
}

// The client thread is inside an event when the stop begins: the stop waits for it, and takes care
// of the read that it starts.
TEST_F(Stopping, WhileAMessageIsBeingTakenWaitsForIt) {
  startFlowing();
  std::latch taking(1);
  std::latch goOn(1);
  host.setHook(standin::Operation::Strncpy, [&] {
    taking.count_down();
    goOn.wait();
  });
  servers.command("send fast " + Batch().addString("last.one", "x").hex());
  taking.wait();
  host.setHook(standin::Operation::Strncpy, {});
  host.clearRecords();
  auto stopped = std::async(std::launch::async, [this] { instance.stop(); });
  // The stop has got as far as it can: the thread that it waits for is held.
  ASSERT_TRUE(host.waitUntil([&] { return count(log(), "log 1 Stop gRPC Gateway client") == 1; }));
  EXPECT_EQ(count(log(), "log 1 Stop gRPC Gateway complete"), 0);
  goOn.count_down();
  stopped.get();
  EXPECT_EQ(withoutFlushLines(log()), stopSteps);
  EXPECT_EQ(servers.waitEvent("closed fast "), "closed fast 1 cancelled");
  expectNothingLeft();
}

TEST_F(Stopping, TakesChangesUntilTheCallbackIsRemoved) {
  startFlowing(oneParameter);
  host.setLogSink([&](const standin::LogLine& line) {
    if (line.text == "grpc-gateway: destroying module manager..") change(77);
  });
  instance.stop();
  EXPECT_TRUE(servers.waitEvent("SetParams 1 ").starts_with("SetParams 1 0a"));
  EXPECT_EQ(engine.callbackCount(), 0u);
  host.setLogSink({});
  change(78);
  EXPECT_FALSE(servers.hasEvent("SetParams 2 "));
}

// ---- Many stops: what goes wrong once in a hundred has to show ----------------------------------

constexpr int manyStops = 300;

TEST_F(Stopping, HundredsOfTimesAmidTraffic) {
  const std::string level = Batch().addFloat("level", 1).addString("last.one", "x").hex();
  for (int round = 0; round < manyStops; ++round) {
    ASSERT_EQ(start(common() + "[MetersFloat]\nMeter=Key=level CustomKey=level\n"), 0);
    servers.waitEvent("open fast ");
    servers.command("send fast " + level + " 0");  // until the call ends
    ASSERT_TRUE(host.waitUntil([&] { return fast("last_one") == standin::SlotValue("x"); }));
    instance.stop();
    expectNothingLeft();
    host.clearRecords();
  }
}

TEST_F(Stopping, HundredsOfTimesRightAfterTheStart) {
  for (int round = 0; round < manyStops; ++round) {
    ASSERT_EQ(start(common() + oneParameter), 0);
    instance.stop();
    expectNothingLeft();
    host.clearRecords();
  }
}

// The call's event may be the one that ends the loop: that payload is lost, as is accepted, so only
// the host's own memory is looked at.
TEST_F(Stopping, HundredsOfTimesRightAfterANotification) {
  for (int round = 0; round < manyStops; ++round) {
    ASSERT_EQ(start(common() + oneParameter), 0);
    change(round);
    instance.stop();
    expectNothingLeft();
    host.clearRecords();
  }
}

}  // namespace
