// Stops without memory: they allocate none.
#include "tests/proof/memory/MemoryProof.h"

namespace {

using standin::KeyValueList;

constexpr char oneParameter[] = "[EngineInt]\nParam=Key=delay CustomKey=delay\n";
constexpr int callsInFlight = 100;

class StopWithoutMemory : public WithoutMemory<FlowTest> {
 protected:
  // Returns when both streams have received a message and no event is under way.
  void startQuiet(const std::string& entries = "") {
    startFlowing(entries);
    deliverFast(Batch());
    deliverSlow(Batch());
  }

  // Stops while every request of this thread would fail. Calls `during` when the flush begins.
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

  std::uint64_t stops() const { return stops_; }

 private:
  std::uint64_t stops_ = 0;
};

TEST_F(StopWithoutMemory, AllocatesNothingInAnyState) {
  // Quiet streams.
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

  // Streams that end or wait for their retry. The loop may drop the last event of a stream.
  startQuiet();
  servers.command("end fast UNAVAILABLE");
  servers.command("end slow UNAVAILABLE");
  stopFailing();
  EXPECT_LE(flushed(), 2);

  // Streams that have just been requested. This comes last, since the server may see them late or
  // never.
  ASSERT_EQ(start(common()), 0);
  stopFailing();

  proof::report({part,
                 "a stop with streams quiet, ended, just requested or switched off, and with " +
                     std::to_string(callsInFlight) + " calls in flight",
                 "",
                 {{"stops, with all allocations failing", stops()}},
                 "each ends as usual, and nothing leaks",
                 {{"allocations requested", 0}}});
}

}  // namespace
