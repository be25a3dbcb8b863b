// The vocabulary of tests that stop a module at a certain moment, and what such a stop shows.
#pragma once

#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/module/grpc-gateway/flows/FlowTest.h"
#include "tests/proof/Proof.h"
#include "tests/proof/stop/GrpcGate.h"

namespace proof {

// Within this a stop has ended that waits for nothing: less than the five seconds of a retry, and
// generous otherwise.
constexpr std::chrono::milliseconds promptly{4000};

// What a stop has shown. A payload is one context.
struct Stop {
  int begun = 0;           // payloads when it began,
  int joined = 0;          // when the client thread had ended,
  int flushed = 0;         // when the queue had been flushed,
  int left = 0;            // and in the end
  int cancelled = 0;       // contexts that were told to end, after the thread
  int payloadLines = 0;    // lines of flushed payloads
  int wakeUpLines = 0;     // lines of a flushed wake-up
  Journal lines;           // all others
  std::string fast, slow;  // the text slots when the queue had been flushed
  std::chrono::milliseconds duration{};
  std::chrono::system_clock::time_point end;
};

class StopTest : public GatewayTest {
 protected:
  // Servers and a gate of its own for each start: what one leaves can't be the next one's.
  void begin(const GatePlan& plan) {
    gate.reset();
    servers.reset();
    servers = std::make_unique<SimProcess>();
    gate = std::make_unique<GrpcGate>(plan);
    atBegin_ = grpcUse();
  }

  void startModule(const std::string& more = "") {
    ASSERT_EQ(start(flowConfiguration(servers->metersTarget(), servers->engineTarget()) +
                    "[EngineInt]\nParam=Key=delay CustomKey=delay\n" + more),
              0);
  }

  void awaitOpenStreams() {
    servers->waitEvent("open fast 1 ");
    servers->waitEvent("open slow 1 ");
  }

  // Sends it so often, 0 for as long as the call is open, and returns when the module has it.
  void deliver(standin::SlotSet set, const std::string& text, int times = 1) {
    send(set, text, times);
    ASSERT_TRUE(host.waitUntil([&] { return textOf(set) == text; }));
  }
  void send(standin::SlotSet set, const std::string& text, int times = 1) {
    servers->command("send " + std::string(nameOf(set)) + " " +
                     Batch().addString("last.one", text).hex() + " " + std::to_string(times));
  }

  // A change of a parameter.
  void change(int value) {
    standin::KeyValueList changes;
    changes.addInt("gateway.delay", value);
    engine.notify(&changes);
  }

  std::string textOf(standin::SlotSet set) const {
    return std::get<std::string>(instance.slot(set, "last_one").read());
  }

  Stop stopModule() {
    Stop seen;
    const auto slots = std::pair(instance.slot(standin::SlotSet::Fast, "last_one"),
                                 instance.slot(standin::SlotSet::Slow, "last_one"));
    int cancelsBefore = 0;
    host.clearRecords();
    host.setLogSink([&](const standin::LogLine& line) {
      if (line.text == "Stop gRPC Gateway complete") {
        seen.joined = payloads();
        cancelsBefore = grpcUse().cancels;
      } else if (line.text == "Shutting down completion queue") {
        seen.cancelled = grpcUse().cancels - cancelsBefore;
      } else if (line.text == "Completion queue flush ended") {
        seen.flushed = payloads();
        seen.fast = std::get<std::string>(slots.first.read());
        seen.slow = std::get<std::string>(slots.second.read());
      }
    });
    seen.begun = payloads();
    const auto begin = std::chrono::steady_clock::now();
    instance.stop();
    seen.duration = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - begin);
    seen.end = std::chrono::system_clock::now();
    host.setLogSink({});
    seen.left = payloads();
    for (const std::string& line : log()) {
      if (line == "log 1 Flushing tag (nil)") {
        ++seen.wakeUpLines;
      } else if (line.starts_with("log 1 Flushing tag ")) {
        ++seen.payloadLines;
      } else {
        seen.lines.push_back(line);
      }
    }
    return seen;
  }

  // What holds after every stop, wherever it began.
  void expectStopped(const Stop& seen) {
    EXPECT_EQ(seen.lines, stopSteps);
    EXPECT_EQ(grpcUse().alarms, atBegin_.alarms);
    EXPECT_FALSE(grpcUse().waitedForReady);
    expectNothingLeft();
  }

  // Of this start: how many are alive.
  int payloads() const { return grpcUse().contexts - atBegin_.contexts; }

  std::unique_ptr<SimProcess> servers;
  std::unique_ptr<GrpcGate> gate;

 private:
  GrpcUse atBegin_;
};

// The longest of some stops, for a row.
inline std::string longest(const std::vector<std::chrono::milliseconds>& stops) {
  return std::to_string(std::max_element(stops.begin(), stops.end())->count()) + " ms at most";
}

}  // namespace proof
