// The simulator playing: what it sends by itself, and what it shows.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "engine.pb.h"
#include "meters.pb.h"
#include "tests/tools/sim/SimTest.h"

namespace {

using grpc::StatusCode;

// The key of each value with the number of the member that is set.
std::vector<std::pair<std::string, int>> keysOf(const sonalith::grpc::Meter& meter) {
  std::vector<std::pair<std::string, int>> keys;
  for (const auto& entry : meter.values()) {
    keys.emplace_back(entry.key(), static_cast<int>(entry.value().value_case()));
  }
  return keys;
}

// Reads on until each of the values has been seen in two states.
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

TEST(PlayingSim, playsEachKeyWithItsTypeOnItsStream) {
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

TEST(PlayingSim, playsValuesThatMove) {
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

TEST(PlayingSim, playsEachStreamAtItsOwnRate) {
  PlayingSim sim({"--rate-fast", "200", "--rate-slow", "20"});
  constexpr int messages = 10;
  const auto begin = std::chrono::steady_clock::now();
  RawCall slow(sim.metersTarget(), slowPath);
  for (int i = 0; i < messages; ++i) ASSERT_TRUE(slow.read());
  const std::chrono::duration<double> time = std::chrono::steady_clock::now() - begin;
  // The first comes at the opening, the second with the next tick, and a late tick comes close to
  // the one behind it.
  constexpr int wholePeriods = messages - 3;
  EXPECT_GE(time.count(), wholePeriods / 20.0);
}

TEST(PlayingSim, playsToAllStreamsOfAMethod) {
  PlayingSim sim({"--rate-fast", "200"});
  RawCall one(sim.metersTarget(), fastPath);
  RawCall another(sim.metersTarget(), fastPath);
  for (int i = 0; i < 10; ++i) {
    ASSERT_TRUE(one.read());
    ASSERT_TRUE(another.read());
  }
}

TEST(PlayingSim, isSilentAtRateZero) {
  PlayingSim sim({"--rate-fast", "0", "--rate-slow", "100"});
  RawCall fast(sim.metersTarget(), fastPath);
  RawCall slow(sim.metersTarget(), slowPath);
  for (int i = 0; i < 10; ++i) ASSERT_TRUE(slow.read());
  sim.process().signal(SIGTERM);
  EXPECT_EQ(fast.readAll(), Lines{});
}

TEST(PlayingSim, sendsEmptyMetersWithoutKeys) {
  PlayingSim sim({"--rate-fast", "100"});
  RawCall call(sim.metersTarget(), fastPath);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(call.read(), "");
}

TEST(PlayingSim, passesOverAStreamThatDoesNotRead) {
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

TEST(PlayingSim, showsParametersALineEach) {
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

TEST(PlayingSim, logsStreamsThatOpenAndClose) {
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

}  // namespace
