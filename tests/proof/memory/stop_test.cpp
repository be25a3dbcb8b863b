// Stops that get no memory: they ask for none.
#include "tests/proof/memory/MemoryProof.h"

namespace {

using standin::KeyValueList;

constexpr char oneParameter[] = "[EngineInt]\nParam=Key=delay CustomKey=delay\n";
constexpr int callsInFlight = 100;

class StopWithoutMemory : public WithoutMemory<FlowTest> {
 protected:
  // Both streams have taken a message, and no event is under way.
  void startQuiet(const std::string& entries = "") {
    startFlowing(entries);
    deliverFast(Batch());
    deliverSlow(Batch());
  }

  // All of this thread's requests fail. `during` is done once the flush has begun.
  void stopFailing(const std::function<void()>& during = [] {}) {
    host.clearRecords();
    host.setLogSink([&](const standin::LogLine& line) {
      if (line.text == "Starting completion queue flush") during();
    });
    const AllocationFault fault(1, Lasting::ForGood);
    instance.stop();
    host.setLogSink({});
    EXPECT_EQ(fault.requestCount(), 0u);
    EXPECT_EQ(log().back(), "log 1 Completion queue flush ended");
    for (const std::string& line : log()) EXPECT_EQ(line.find("exception"), line.npos) << line;
    expectNothingLeft();
    expectNoOwnBlocks();
    ++stops_;
  }

  int flushed() const {
    int found = 0;
    for (const std::string& line : log()) found += line.starts_with("log 1 Flushing tag 0x");
    return found;
  }

  int stops() const { return stops_; }

 private:
  int stops_ = 0;
};

TEST_F(StopWithoutMemory, AsksForNoneWhateverStateItMeets) {
  // Streams that are quiet.
  startQuiet();
  stopFailing();
  EXPECT_EQ(flushed(), 2);

  // No stream and no call.
  ASSERT_EQ(start("[Meters]\nEnableFastMeters=false\nEnableSlowMeters=false\n"), 0);
  stopFailing();
  EXPECT_EQ(flushed(), 0);

  // Calls that the service has not answered yet.
  startQuiet(oneParameter);
  servers.command("engine hold");
  for (int i = 0; i < callsInFlight; ++i) {
    KeyValueList changes;
    changes.addInt("gateway.delay", i);
    engine.notify(&changes);
  }
  servers.waitEvent("SetParams " + std::to_string(callsInFlight) + " ");
  stopFailing([this] { servers.command("engine release"); });
  EXPECT_EQ(flushed(), callsInFlight + 2);

  // Streams that end, or wait for their retry. The loop may drop the last event of one.
  startQuiet();
  servers.command("end fast UNAVAILABLE");
  servers.command("end slow UNAVAILABLE");
  stopFailing();
  EXPECT_LE(flushed(), 2);

  // Streams that have just been asked for. At the end, since the server may hear of them late, or
  // never.
  ASSERT_EQ(start(common()), 0);
  stopFailing();

  proof::report({part,
                 "stop: streams quiet, none, ended, asked for, and with " +
                     std::to_string(callsInFlight) + " calls in flight",
                 std::to_string(stops()) + " stops, all allocations failing",
                 "0 allocations asked for, each as ever, nothing left"});
}

}  // namespace
