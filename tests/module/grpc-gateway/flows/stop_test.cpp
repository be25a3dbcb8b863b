// Stopping in every state of streams and calls: the order of the log lines, and that nothing is
// left.
#include <future>
#include <latch>

#include "tests/module/grpc-gateway/flows/FlowTest.h"

namespace {

using standin::KeyValueList;

constexpr char oneParameter[] = "[EngineInt]\nParam=Key=delay CustomKey=delay\n";
constexpr char flushLine[] = "log 1 Flushing tag ";

class Stopping : public FlowTest {
 protected:
  // Stops the module and returns what it logs.
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

TEST_F(Stopping, QuietStreamsAreCancelledAndFlushedWithOneTagEach) {
  startFlowing();
  deliverFast(Batch());
  deliverSlow(Batch());
  const Journal lines = stopLog();
  EXPECT_EQ(withoutFlushLines(lines), stopSteps);
  EXPECT_EQ(count(lines, flushLine), 2);
  EXPECT_EQ(count(lines, "log 1 Flushing tag (nil)"), 0);
  // The flush lines come between the beginning and the end of the flush.
  EXPECT_EQ(lines[6], stopSteps[6]);
  EXPECT_TRUE(lines[7].starts_with(flushLine));
  EXPECT_TRUE(lines[8].starts_with(flushLine));
  EXPECT_NE(lines[7], lines[8]);
  EXPECT_EQ(servers.waitEvent("closed fast "), "closed fast 1 cancelled");
  EXPECT_EQ(servers.waitEvent("closed slow "), "closed slow 1 cancelled");
  expectNothingLeft();
}

TEST_F(Stopping, WithoutTargetsNothingIsFlushed) {
  ASSERT_EQ(start("[Meters]\nEnableFastMeters=false\nEnableSlowMeters=false\n"), 0);
  EXPECT_EQ(stopLog(), stopSteps);
  expectNothingLeft();
}

TEST_F(Stopping, OnlyAnEnabledStreamIsFlushed) {
  ASSERT_EQ(start("[Meters]\nTarget=" + servers.metersTarget() + "\nEnableSlowMeters=false\n"), 0);
  servers.waitEvent("open fast ");
  const Journal lines = stopLog();
  EXPECT_EQ(withoutFlushLines(lines), stopSteps);
  EXPECT_EQ(count(lines, flushLine), 1);
  expectNothingLeft();
}

TEST_F(Stopping, NoStreamIsOpenedAgain) {
  startFlowing();
  instance.stop();
  servers.waitEvent("closed fast ");
  servers.waitEvent("closed slow ");
  EXPECT_FALSE(servers.hasEvent("open fast 2 "));
  EXPECT_FALSE(servers.hasEvent("open slow 2 "));
}

// Nothing cancels the call, so the flush waits for its answer.
TEST_F(Stopping, AStopWaitsForTheAnswerToACallInFlight) {
  servers.command("engine hold");
  startFlowing(oneParameter);
  change(1);
  servers.waitEvent("SetParams 1 ");
  host.clearRecords();
  auto stopped = std::async(std::launch::async, [this] { instance.stop(); });
  // Both streams have been flushed, the call has not.
  ASSERT_TRUE(host.waitUntil([&] { return count(log(), flushLine) == 2; }));
  EXPECT_EQ(count(log(), stopSteps.back()), 0);
  servers.command("engine release");
  stopped.get();
  EXPECT_EQ(withoutFlushLines(log()), stopSteps);
  EXPECT_EQ(count(log(), flushLine), 3);
  expectNothingLeft();
}

// The client thread handles an event when the stop begins. The stop waits for it and flushes the
// read that it starts.
TEST_F(Stopping, AStopWaitsForAMessageInProgress) {
  startFlowing();
  std::latch processing(1);
  std::latch mayContinue(1);
  host.setHook(standin::Operation::Strncpy, [&] {
    processing.count_down();
    mayContinue.wait();
  });
  servers.command("send fast " + Batch().addString("last.one", "x").hex());
  processing.wait();
  host.setHook(standin::Operation::Strncpy, {});
  host.clearRecords();
  auto stopped = std::async(std::launch::async, [this] { instance.stop(); });
  // The stop can get no further: the thread that it waits for is held.
  ASSERT_TRUE(host.waitUntil([&] { return count(log(), "log 1 Stop gRPC Gateway client") == 1; }));
  EXPECT_EQ(count(log(), "log 1 Stop gRPC Gateway complete"), 0);
  mayContinue.count_down();
  stopped.get();
  EXPECT_EQ(withoutFlushLines(log()), stopSteps);
  EXPECT_EQ(servers.waitEvent("closed fast "), "closed fast 1 cancelled");
  expectNothingLeft();
}

TEST_F(Stopping, ChangesAreHandledUntilTheCallbackIsRemoved) {
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

// ---- Many stops, to catch what goes wrong once in a hundred -------------------------------------

constexpr int manyStops = 300;

TEST_F(Stopping, HundredsOfStopsUnderTrafficLeaveNothing) {
  const std::string level = Batch().addFloat("level", 1).addString("last.one", "x").hex();
  for (int round = 0; round < manyStops; ++round) {
    ASSERT_EQ(start(common() + "[MetersFloat]\nMeter=Key=level CustomKey=level\n"), 0);
    servers.waitEvent("open fast ");
    servers.command("send fast " + level + " 0");  // again and again until the call ends
    ASSERT_TRUE(host.waitUntil([&] { return fast("last_one") == standin::SlotValue("x"); }));
    instance.stop();
    expectNothingLeft();
    host.clearRecords();
  }
}

TEST_F(Stopping, HundredsOfStopsRightAfterTheStartLeaveNothing) {
  for (int round = 0; round < manyStops; ++round) {
    ASSERT_EQ(start(common() + oneParameter), 0);
    instance.stop();
    expectNothingLeft();
    host.clearRecords();
  }
}

// The loop may drop the call's event and so leak its payload, which is accepted. The host's memory
// must be released all the same.
TEST_F(Stopping, HundredsOfStopsRightAfterANotificationLeaveNothing) {
  for (int round = 0; round < manyStops; ++round) {
    ASSERT_EQ(start(common() + oneParameter), 0);
    change(round);
    instance.stop();
    expectNothingLeft();
    host.clearRecords();
  }
}

}  // namespace
