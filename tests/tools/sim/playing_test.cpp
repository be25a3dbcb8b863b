// The simulator without --commands: what it sends by itself, and what it shows.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "engine.pb.h"
#include "meters.pb.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/tools/sim/SimTest.h"

namespace {

using grpc::StatusCode;

// The key of each value, with the number of the member that is set.
std::vector<std::pair<std::string, int>> keysOf(const sonalith::grpc::Meter& meter) {
  std::vector<std::pair<std::string, int>> keys;
  for (const auto& entry : meter.values()) {
    keys.emplace_back(entry.key(), static_cast<int>(entry.value().value_case()));
  }
  return keys;
}

// Reads until each of the values has changed.
bool allValuesMove(RawCall& call) {
  std::map<std::string, std::set<std::string>> states;
  const auto moved = [](const auto& keyStates) { return keyStates.second.size() > 1; };
  do {
    const auto meter = meterOf(call.read());
    for (const auto& entry : meter.values()) {
      states[entry.key()].insert(entry.value().SerializeAsString());
    }
  } while (!std::all_of(states.begin(), states.end(), moved));
  return true;
}

TEST(PlayingSim, PlaysEachKeyWithItsTypeOnItsStream) {
  PlayingSim sim({"--keys", "fast:float:out.level", "slow:string:dsp state", "fast:string:a:b",
                  "slow:int:frames", "fast:int:i", "slow:uint:mode", "slow:float:in", "--keys",
                  "fast:uint:u"});
  using Value = sonalith::grpc::AnyValue;
  using Keys = std::vector<std::pair<std::string, int>>;
  RawCall fast(sim.metersTarget(), fastPath);
  EXPECT_EQ(keysOf(meterOf(fast.read())), (Keys{{"out.level", Value::kSfloat},
                                                {"a:b", Value::kSstring},
                                                {"i", Value::kSint},
                                                {"u", Value::kSuint}}));
  RawCall slow(sim.metersTarget(), slowPath);
  EXPECT_EQ(keysOf(meterOf(slow.read())), (Keys{{"dsp state", Value::kSstring},
                                                {"frames", Value::kSint},
                                                {"mode", Value::kSuint},
                                                {"in", Value::kSfloat}}));
}

TEST(PlayingSim, PlaysValuesThatMove) {
  const std::vector<std::string> keys{"fast:float:f", "fast:int:i", "fast:uint:u", "fast:string:s",
                                      "slow:float:f", "slow:int:i", "slow:uint:u", "slow:string:s"};
  std::vector<std::string> arguments{"--rate-fast", "50", "--rate-slow", "20", "--keys"};
  arguments.insert(arguments.end(), keys.begin(), keys.end());
  PlayingSim sim(arguments);
  RawCall fast(sim.metersTarget(), fastPath);
  RawCall slow(sim.metersTarget(), slowPath);
  EXPECT_TRUE(allValuesMove(fast));
  EXPECT_TRUE(allValuesMove(slow));
}

TEST(PlayingSim, PlaysEachStreamAtItsOwnRate) {
  PlayingSim sim({"--rate-fast", "200", "--rate-slow", "20"});
  constexpr int messages = 10;
  const auto begin = std::chrono::steady_clock::now();
  RawCall slow(sim.metersTarget(), slowPath);
  for (int i = 0; i < messages; ++i) ASSERT_TRUE(slow.read());
  const std::chrono::duration<double> time = std::chrono::steady_clock::now() - begin;
  // The first message comes at once, the second with the next tick, and a late tick may come close
  // to the one after it.
  constexpr int wholePeriods = messages - 3;
  EXPECT_GE(time.count(), wholePeriods / 20.0);
}

TEST(PlayingSim, PlaysToAllStreamsOfAMethod) {
  PlayingSim sim({"--rate-fast", "200"});
  RawCall one(sim.metersTarget(), fastPath);
  RawCall another(sim.metersTarget(), fastPath);
  for (int i = 0; i < 10; ++i) {
    ASSERT_TRUE(one.read());
    ASSERT_TRUE(another.read());
  }
}

TEST(PlayingSim, IsSilentAtRateZero) {
  PlayingSim sim({"--rate-fast", "0", "--rate-slow", "100"});
  RawCall fast(sim.metersTarget(), fastPath);
  RawCall slow(sim.metersTarget(), slowPath);
  for (int i = 0; i < 10; ++i) ASSERT_TRUE(slow.read());
  sim.process().signal(SIGTERM);
  EXPECT_EQ(fast.readAll(), Lines{});
}

TEST(PlayingSim, SendsEmptyMetersWithoutKeys) {
  PlayingSim sim({"--rate-fast", "100"});
  RawCall call(sim.metersTarget(), fastPath);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(call.read(), "");
}

TEST(PlayingSim, SkipsAStreamThatDoesNotRead) {
  const std::string longKey(100000, 'k');
  PlayingSim sim({"--rate-fast", "1000", "--keys", "fast:int:" + longKey});
  RawCall lazy(sim.metersTarget(), fastPath);
  RawCall eager(sim.metersTarget(), fastPath);
  constexpr int messages = 300;
  for (int i = 0; i < messages; ++i) ASSERT_TRUE(eager.read());
  const auto now = meterOf(eager.read()).values(0).value().sint();
  int stale = 0;
  while (meterOf(lazy.read()).values(0).value().sint() < now) ++stale;
  EXPECT_LT(stale, messages / 2);
}

TEST(PlayingSim, ShowsOneLinePerParameter) {
  PlayingSim sim({});
  sonalith::grpcengine::RequestSetParams request;
  const auto add = [&](const std::string& key) -> sonalith::grpcengine::AnyValue& {
    auto& param = *request.add_params();
    param.set_key(key);
    return *param.mutable_value();
  };
  add("out.gain").set_sfloat(-6.5F);
  add("tenth").set_sfloat(0.1F);
  add("dsp state").set_sstring("two\nlines \\ and \x7f");
  add("empty").set_sstring("");
  add("count").set_sint(-1);
  add("mode").set_suint(4294967295U);
  add("precise").set_sdouble(0.1);
  add("floats").mutable_afloat()->add_data(1.5F);
  auto& ints = *add("ints").mutable_aint();
  ints.add_data(-1);
  ints.add_data(2);
  add("uints").mutable_auint();
  add("unset");
  EXPECT_EQ(setParams(sim.engineTarget()), (Reply{StatusCode::OK, {""}}));
  EXPECT_EQ(setParams(sim.engineTarget(), request.SerializeAsString()),
            (Reply{StatusCode::OK, {""}}));
  EXPECT_EQ(setParams(sim.engineTarget(), "\xff"), (Reply{StatusCode::OK, {""}}));
  sim.process().waitLine("SetParams 3 ");
  EXPECT_EQ(linesFrom(2, sim.process()),
            (Lines{"SetParams 2 out.gain float -6.5", "SetParams 2 tenth float 0.1",
                   "SetParams 2 dsp state string two\\x0alines \\x5c and \\x7f",
                   "SetParams 2 empty string ", "SetParams 2 count int -1",
                   "SetParams 2 mode uint 4294967295", "SetParams 2 precise double 0.1",
                   "SetParams 2 floats floats 1.5", "SetParams 2 ints ints -1 2",
                   "SetParams 2 uints uints ", "SetParams 2 unset nothing",
                   "SetParams 3 unreadable ff"}));
}

TEST(PlayingSim, LogsStreamsThatOpenAndClose) {
  PlayingSim sim({});
  {
    RawCall call(sim.metersTarget(), fastPath);
    call.read();
  }
  sim.process().signal(SIGTERM);
  sim.process().waitExit();
  const auto log = sim.process().errors();
  EXPECT_NE(log.find("gatewayctl sim: fast 1 open from ipv4:127.0.0.1:"), log.npos);
  EXPECT_NE(log.find("\ngatewayctl sim: fast 1 cancelled\n"), log.npos);
}

// ---- Messages -------------------------------------------------------------------------------

TEST(PlayingSim, SplitsABatchIntoMessages) {
  PlayingSim sim({"--values-per-message", "2", "--keys", "fast:int:a", "fast:int:b", "fast:int:c",
                  "slow:int:d", "slow:int:e"});
  RawCall fast(sim.metersTarget(), fastPath);
  using Keys = std::vector<std::pair<std::string, int>>;
  using Value = sonalith::grpc::AnyValue;
  for (int batch = 0; batch < 3; ++batch) {
    EXPECT_EQ(keysOf(meterOf(fast.read())), (Keys{{"a", Value::kSint}, {"b", Value::kSint}}));
    EXPECT_EQ(keysOf(meterOf(fast.read())), (Keys{{"c", Value::kSint}}));
  }
  RawCall slow(sim.metersTarget(), slowPath);
  for (int batch = 0; batch < 2; ++batch) EXPECT_EQ(meterOf(slow.read()).values_size(), 2);
}

TEST(PlayingSim, SendsEmptyMessagesAsHeartbeatsOnAQuietStream) {
  PlayingSim sim(
      {"--heartbeat", "0.05", "--rate-fast", "0", "--rate-slow", "0.001", "--keys", "slow:int:a"});
  RawCall fast(sim.metersTarget(), fastPath);
  RawCall slow(sim.metersTarget(), slowPath);
  EXPECT_EQ(meterOf(slow.read()).values_size(), 1);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(fast.read(), "");
    EXPECT_EQ(slow.read(), "");
  }
}

TEST(PlayingSim, SendsNoHeartbeatsOnABusyStream) {
  constexpr int messages = 30;
  PlayingSim sim({"--heartbeat", "60", "--rate-fast", "100", "--keys", "fast:int:a"});
  RawCall fast(sim.metersTarget(), fastPath);
  for (int i = 0; i < messages; ++i) EXPECT_EQ(meterOf(fast.read()).values_size(), 1);
}

// ---- Configurations -------------------------------------------------------------------------

TEST(PlayingSim, PlaysTheMeterKeysOfAConfiguration) {
  const TemporaryFolder files;
  const auto path = files.write("gateway.conf",
                                "[Meters]\nTarget=any:1\n"
                                "[MetersFloat]\nMeter=Key=a\nMeter=Key=a Type=slow\n"
                                "[MetersString]\nMeter=Key=\"dsp state\" Type=slow\n"
                                "[MetersUint]\nMeter=Key=u\n[MetersInt]\nMeter=Key=a\n");
  PlayingSim sim({"--config", path, "--keys", "fast:float:more", "fast:uint:u"});
  using Value = sonalith::grpc::AnyValue;
  using Keys = std::vector<std::pair<std::string, int>>;
  RawCall fast(sim.metersTarget(), fastPath);
  EXPECT_EQ(keysOf(meterOf(fast.read())), (Keys{{"more", Value::kSfloat},
                                                {"u", Value::kSuint},
                                                {"a", Value::kSint},
                                                {"a", Value::kSfloat}}));
  RawCall slow(sim.metersTarget(), slowPath);
  EXPECT_EQ(keysOf(meterOf(slow.read())),
            (Keys{{"dsp state", Value::kSstring}, {"a", Value::kSfloat}}));
}

TEST(PlayingSim, SkipsConfiguredKeysThatClientsWouldRefuse) {
  const TemporaryFolder files;
  const auto path = files.write(
      "gateway.conf", "[Meters]\nTarget=any:1\n[MetersInt]\nMeter=Key=b\xff\nMeter=Key=a\n");
  PlayingSim sim({"--config", path});
  RawCall fast(sim.metersTarget(), fastPath);
  using Keys = std::vector<std::pair<std::string, int>>;
  EXPECT_EQ(keysOf(meterOf(fast.read())), (Keys{{"a", sonalith::grpc::AnyValue::kSint}}));
  sim.process().waitError("gatewayctl sim: warning: the key \"b");
}

TEST(PlayingSim, SaysThatNothingPlays) {
  const std::string said =
      "gatewayctl sim: nothing plays: give --config, --keys, --replay or --control\n";
  PlayingSim without({});
  without.process().waitError(said);
  PlayingSim with({"--keys", "fast:int:a"});
  with.process().signal(SIGTERM);
  with.process().waitExit();
  EXPECT_EQ(with.process().errors().find(said), std::string::npos);
}

TEST(PlayingSim, RefusesAConfigurationThatTheGatewayRefuses) {
  const TemporaryFolder files;
  const auto path = files.write("gateway.conf", "[Meters]\nTarget=any:1\n[MetersFloat]\nMeter=x\n");
  ToolProcess sim({"sim", "--meters", SimProcess::anyPort, "--config", path});
  EXPECT_EQ(sim.waitExit(), 1);
  EXPECT_EQ(sim.lines(), Lines{});
  EXPECT_TRUE(sim.errors().starts_with("gatewayctl sim: ")) << sim.errors();
  EXPECT_NE(sim.errors().find("\n" + path + ":4:7: error: "), std::string::npos) << sim.errors();
  EXPECT_TRUE(sim.errors().ends_with("\ngatewayctl sim: the configuration " + path +
                                     " was refused; the findings above say why\n"));
}

TEST(PlayingSim, NamesAMissingConfiguration) {
  ToolProcess sim({"sim", "--meters", SimProcess::anyPort, "--config", "/nowhere/gateway.conf"});
  EXPECT_EQ(sim.waitExit(), 1);
  EXPECT_EQ(sim.errors(),
            "gatewayctl sim: can't read /nowhere/gateway.conf: No such file or directory\n");
}

// ---- JSON -----------------------------------------------------------------------------------

using nlohmann::json;

TEST(PlayingSim, ReportsEverythingAsJsonLines) {
  ToolProcess sim({"sim", "--json", "--meters", SimProcess::anyPort, "--engine",
                   SimProcess::anyPort, "--fault", "at 0.5 for 0.25: fail engine ABORTED"});
  const auto meters = json::parse(sim.waitLine(R"({"event":"listening","service":"meters")"));
  const auto engine = json::parse(sim.waitLine(R"({"event":"listening","service":"engine")"));
  const auto addressOf = [](const json& line) { return line.at("address").get<std::string>(); };
  {
    RawCall call(addressOf(meters), fastPath);
    const auto opened = json::parse(sim.waitLine(R"({"event":"opened")"));
    EXPECT_TRUE(opened.at("peer").get<std::string>().starts_with("ipv4:127.0.0.1:"));
    EXPECT_EQ(
        opened,
        (json{{"event", "opened"}, {"stream", "fast"}, {"call", 1}, {"peer", opened.at("peer")}}));
  }
  EXPECT_EQ(sim.waitLine(R"({"event":"closed")"),
            R"({"event":"closed","stream":"fast","call":1,"end":"cancelled"})");
  sonalith::grpcengine::RequestSetParams request;
  const auto add = [&](const std::string& key) -> sonalith::grpcengine::AnyValue& {
    auto& param = *request.add_params();
    param.set_key(key);
    return *param.mutable_value();
  };
  add("gain").set_sfloat(0.1F);
  add("text").set_sstring("\"two\"\nlines");
  add("count").set_sint(-1);
  add("mode").set_suint(4294967295U);
  add("infinite").set_sdouble(std::numeric_limits<double>::infinity());
  add("floats").mutable_afloat()->add_data(1.5F);
  add("ints").mutable_aint()->add_data(-1);
  add("uints").mutable_auint();
  add("unset");
  setParams(addressOf(engine), request.SerializeAsString());
  setParams(addressOf(engine), "\xff");
  sim.waitLine(R"({"event":"fault_over")");
  sim.signal(SIGTERM);
  EXPECT_EQ(sim.waitExit(), 130);
  const auto hasLine = [&](const std::string& line) { EXPECT_TRUE(sim.hasLine(line)) << line; };
  hasLine(R"({"event":"set_params","call":1,"key":"gain","type":"float","value":0.1})");
  hasLine(
      R"({"event":"set_params","call":1,"key":"text","type":"string","value":"\"two\"\nlines"})");
  hasLine(R"({"event":"set_params","call":1,"key":"count","type":"int","value":-1})");
  hasLine(R"({"event":"set_params","call":1,"key":"mode","type":"uint","value":4294967295})");
  hasLine(R"({"event":"set_params","call":1,"key":"infinite","type":"double","value":"inf"})");
  hasLine(R"({"event":"set_params","call":1,"key":"floats","type":"floats","value":[1.5]})");
  hasLine(R"({"event":"set_params","call":1,"key":"ints","type":"ints","value":[-1]})");
  hasLine(R"({"event":"set_params","call":1,"key":"uints","type":"uints","value":[]})");
  hasLine(R"({"event":"set_params","call":1,"key":"unset","type":"nothing","value":null})");
  hasLine(R"({"event":"set_params_unreadable","call":2,"bytes":"ff"})");
  hasLine(R"({"event":"fault","at":0.5,"fault":"fail","subject":"engine","argument":"ABORTED"})");
  hasLine(
      R"({"event":"fault_over","at":0.75,"fault":"fail","subject":"engine","argument":"ABORTED"})");
  for (const auto& line : sim.lines()) EXPECT_TRUE(json::parse(line).contains("event"));
}

}  // namespace
