// Helpers for tests that stop a module at a certain moment.
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

constexpr auto part = "Stop in every state";

// A stop that waits for nothing takes less time than this. It is generous, but less than the five
// seconds of a retry.
constexpr std::chrono::milliseconds promptly{4000};

// What a stop has shown. Each payload has one context, by which it is counted.
struct Stop {
  int begun = 0;           // payloads when the stop began,
  int joined = 0;          // when the client thread had ended,
  int flushed = 0;         // when the queue had been flushed,
  int left = 0;            // and at the end
  int cancelled = 0;       // contexts that were cancelled after the client thread had ended
  int payloadLines = 0;    // lines of flushed payloads
  int wakeUpLines = 0;     // lines of a flushed wake-up
  Journal lines;           // all other lines
  std::string fast, slow;  // the text slots when the queue had been flushed
  std::chrono::milliseconds duration{};
  std::chrono::system_clock::time_point end;
};

class StopTest : public GatewayTest {
 protected:
  // Each start has its own servers and gate, so that none sees what an earlier one left.
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

  // Sends a text `times` times, or as long as the call is open if 0; the first form returns when
  // the module has it.
  void deliver(standin::SlotSet set, const std::string& text, int times = 1) {
    send(set, text, times);
    ASSERT_TRUE(host.waitUntil([&] { return textOf(set) == text; }));
  }
  void send(standin::SlotSet set, const std::string& text, int times = 1) {
    servers->command("send " + std::string(nameOf(set)) + " " +
                     Batch().addString("last.one", text).hex() + " " + std::to_string(times));
  }

  // Changes a parameter.
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

  // What holds after every stop, in whatever state it began.
  void expectStopped(const Stop& seen) {
    EXPECT_EQ(seen.lines, stopSteps);
    EXPECT_EQ(grpcUse().alarms, atBegin_.alarms);
    EXPECT_FALSE(grpcUse().waitedForReady);
    expectNothingLeft();
  }

  // How many payloads of this start exist.
  int payloads() const { return grpcUse().contexts - atBegin_.contexts; }

  std::unique_ptr<SimProcess> servers;
  std::unique_ptr<GrpcGate> gate;

 private:
  GrpcUse atBegin_;
};

inline std::chrono::milliseconds longest(const std::vector<std::chrono::milliseconds>& stops) {
  return *std::max_element(stops.begin(), stops.end());
}

}  // namespace proof
