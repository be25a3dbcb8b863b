// Each fault of the simulator fails the checks that it concerns, and no other.
#include <future>

#include "meters.pb.h"
#include "tests/tools/probe/ProbeTest.h"

namespace probe {
namespace {

struct FaultCase {
  std::string name;
  std::vector<std::string> arguments;  // of the simulator
  Names failed;
  bool skipsOthers = false;  // whether failed checks keep others from running
  double patience = Limits().patience.count();
  double listening = Limits().listening.count();
};

// For GoogleTest's messages.
void PrintTo(const FaultCase& each, std::ostream* out) {
  *out << each.name;
}

FaultCase fault(const std::string& name, const std::string& plan, const Names& failed,
                bool skipsOthers = false) {
  return {name, {"--fault", plan}, failed, skipsOthers};
}

// Where nothing ever comes, waiting for less time gives the same result.
FaultCase deadFault(const std::string& name, const std::string& plan, const Names& failed) {
  return {name, {"--fault", plan}, failed, true, 1};
}

// The fault ends connections every five seconds: so rarely that values come before it strikes, and
// so often that it strikes while the probe listens.
FaultCase rareFault(const std::string& name, const std::string& fault) {
  FaultCase rare{name, {"--fault", "every 5: " + fault}, {"stays-open"}, true};
  rare.listening = 8;
  return rare;
}

constexpr bool skipsOthers = true;

// Keys that make each message long, for a slow connection.
std::vector<std::string> slowConnection() {
  std::vector<std::string> arguments;
  for (int i = 0; i < 100; ++i) {
    arguments.push_back("fast:float:" + std::string(100, 'k') + std::to_string(i));
    arguments.push_back("slow:float:" + std::string(100, 'k') + std::to_string(i));
  }
  arguments.insert(arguments.end(), {"--fault", "at 0: drip meters 200"});
  return arguments;
}

class Fault : public testing::TestWithParam<FaultCase> {};

TEST_P(Fault, FailsJustTheChecksThatItConcerns) {
  const FaultCase& now = GetParam();
  const PlayingServer server(now.arguments);
  Limits limits;
  limits.patience = Limits::Seconds(now.patience);
  limits.listening = Limits::Seconds(now.listening);
  // A strict server refuses early pings, however far apart they are.
  limits.pingInterval = Limits::Seconds(0.01);
  const Results results = probed(server.meters, server.engine, highestLevel, limits);
  EXPECT_EQ(namesOf(results, Verdict::Failed), now.failed) << textOf(results);
  EXPECT_EQ(!namesOf(results, Verdict::Skipped).empty(), now.skipsOthers) << textOf(results);
}

INSTANTIATE_TEST_SUITE_P(
    Of, Fault,
    testing::Values(
        fault("End", "every 0.1: end fast DATA_LOSS", {"stays-open"}, skipsOthers),
        fault("Garbage", "every 0.1: garbage fast", {"readable"}),
        fault("NotUtf8", "every 0.1: not-utf8 slow", {"utf8"}),
        fault("Oversize", "every 0.3: oversize fast", {"size"}),
        fault("Unknown", "every 0.1: unknown fast", {"carried"}),
        fault("Types", "every 0.1: types", {"one-type"}),
        fault("Arrays", "every 0.1: arrays", {"one-type"}), fault("Empty", "every 0.1: empty", {}),
        fault("StallOfOneStream", "at 0: stall slow", {"snapshot", "heartbeat"}),
        fault("StallOfBothStreams", "at 0: stall", {"values", "snapshot", "heartbeat"},
              skipsOthers),
        fault("Flood", "at 0: flood fast", {"rate"}),
        fault("Half", "at 0: half slow", {"snapshot", "heartbeat"}),
        rareFault("Close", "close meters"), rareFault("Reset", "reset meters"),
        deadFault("Refuse", "at 0: refuse meters", {"connects"}),
        deadFault("Silent", "at 0: silent meters", {"connects"}),
        deadFault("Freeze", "at 0: freeze meters", {"connects"}),
        FaultCase{"Drip", slowConnection(), {"values", "snapshot", "heartbeat"}, skipsOthers},
        deadFault("RefusedEngine", "at 0: refuse engine", {"engine-connects"}),
        fault("Slice", "at 0: slice 10", {}), fault("Limit", "at 0: limit 1MB", {}),
        fault("Loss", "at 0: loss slow", {"snapshot", "heartbeat"}),
        fault("DelayOfMessages", "at 0: delay meters 50ms+-20ms", {}),
        fault("DelayOfAnswers", "at 0: delay engine 1.5", {"engine-answers"}),
        fault("NoReply", "at 0: no-reply engine", {"engine-answers"}, skipsOthers),
        fault("Fail", "at 0: fail engine PERMISSION_DENIED", {"engine-status"}),
        fault("BadReply", "at 0: bad-reply engine", {"engine-reply"}),
        fault("Normal", "every 0.1: normal", {}),
        FaultCase{"StrictPings", {"--strict-pings"}, {"steady-pings", "engine-steady-pings"}}),
    [](const auto& instantiation) { return instantiation.param.name; });

TEST(Probe, FindsAMissingMethod) {
  const PlayingServer server;
  // The simulator's addresses serve one service each.
  const Results results = probed(server.engine, server.meters, highestLevel);
  EXPECT_EQ(namesOf(results, Verdict::Failed), (Names{"methods", "engine-method"}))
      << textOf(results);
  EXPECT_EQ(namesOf(results, Verdict::Held), (Names{"connects", "engine-connects"}));
}

// A message with one key, whose value is a text or a number.
std::string meterOf(bool isText) {
  sonalith::grpc::Meter meter;
  auto& item = *meter.add_values();
  item.set_key("a");
  if (isText) {
    item.mutable_value()->mutable_sstring()->set_data("1");
  } else {
    item.mutable_value()->set_sfloat(1);
  }
  return toHex(meter);
}

TEST(Probe, CountsAKeyThatReturnsWithAnotherTypeAsMissing) {
  SimProcess server;
  auto served = std::async(std::launch::async, [&] {
    const auto serve = [&](const std::string& call, bool isText) {
      server.waitEvent("open fast " + call);
      server.waitEvent("open slow " + call);
      server.command("send fast " + meterOf(isText) + " 2");
      server.command("send slow " + meterOf(false) + " 2");
    };
    serve("1 ", false);
    server.waitEvent("closed slow 1 cancelled");
    server.command("send fast -");
    serve("2 ", true);
  });
  Limits limits;
  limits.reopenings = 0;
  limits.gateways = 0;
  const Results results = probed(server.metersTarget(), "", 4, limits);
  served.get();
  const Result* const back = results.find(CheckId::Return);
  ASSERT_NE(back, nullptr);
  EXPECT_EQ(back->verdict, Verdict::Failed);
  EXPECT_TRUE(back->seen.starts_with("1 of 2 keys did not come again within ")) << textOf(results);
}

}  // namespace
}  // namespace probe
