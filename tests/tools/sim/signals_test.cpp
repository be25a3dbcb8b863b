// The signals that play.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "meters.pb.h"
#include "tests/tools/sim/SimTest.h"
#include "tools/sim/Signals.h"

namespace {

using sim::KeySpec;
using sim::Method;
using sim::Signals;
using sim::ValueType;

// A signal's values over a minute, a hundredth of a second apart.
std::vector<sonalith::grpc::AnyValue> minuteOf(const KeySpec& played, std::uint64_t seed = 1) {
  const Signals signals({played}, seed);
  std::vector<sonalith::grpc::AnyValue> values;
  for (int i = 0; i < 6000; ++i) {
    values.push_back(meterOf(signals.meterAt(played.rate, i / 100.0)).values(0).value());
  }
  return values;
}

std::string bytesOf(const std::vector<sonalith::grpc::AnyValue>& values) {
  std::string bytes;
  for (const auto& value : values) bytes += value.SerializeAsString();
  return bytes;
}

TEST(Signals, AreTheSameWithTheSameSeed) {
  for (const auto& row : gateway::valueTypes) {
    const KeySpec played{Method::Fast, row.type, "key"};
    EXPECT_EQ(bytesOf(minuteOf(played, 5)), bytesOf(minuteOf(played, 5)));
  }
}

TEST(Signals, DifferWithAnotherSeed) {
  for (const auto& row : gateway::valueTypes) {
    const KeySpec played{Method::Fast, row.type, "key"};
    EXPECT_NE(bytesOf(minuteOf(played, 5)), bytesOf(minuteOf(played, 6)));
  }
}

TEST(Signals, DifferBetweenKeysAndBetweenRates) {
  for (const auto& row : gateway::valueTypes) {
    const auto one = bytesOf(minuteOf({Method::Fast, row.type, "key1"}));
    EXPECT_NE(one, bytesOf(minuteOf({Method::Fast, row.type, "key2"})));
    EXPECT_NE(one, bytesOf(minuteOf({Method::Slow, row.type, "key1"})));
  }
}

TEST(Signals, LevelsRiseAndFallBetweenMinusSixtyAndZero) {
  float lowest = 0;
  float highest = -60;
  for (const auto& value : minuteOf({Method::Fast, ValueType::Float, "level"})) {
    ASSERT_GE(value.sfloat(), -60);
    ASSERT_LE(value.sfloat(), 0);
    lowest = std::min(lowest, value.sfloat());
    highest = std::max(highest, value.sfloat());
  }
  EXPECT_LT(lowest, -45);
  EXPECT_GT(highest, -15);
}

TEST(Signals, CountersRiseByFiveToTwentyPerSecond) {
  const auto values = minuteOf({Method::Fast, ValueType::Int, "count"});
  for (std::size_t i = 1; i < values.size(); ++i) {
    const auto step = values[i].sint() - values[i - 1].sint();
    ASSERT_TRUE(step == 0 || step == 1);
  }
  const auto steps = values.back().sint() - values.front().sint();
  EXPECT_GE(steps, 5 * 59);
  EXPECT_LE(steps, 20 * 60);
}

TEST(Signals, CountersReturnToZeroAtAMillion) {
  const Signals signals({{Method::Fast, ValueType::Int, "count"}}, 1);
  constexpr double twoDays = 2 * 24 * 3600;
  constexpr double years = 1e9;
  for (const double seconds : {twoDays, years}) {
    const auto count = meterOf(signals.meterAt(Method::Fast, seconds)).values(0).value().sint();
    EXPECT_GE(count, 0);
    EXPECT_LT(count, 1000000);
  }
}

TEST(Signals, TextStatesComeInTurn) {
  std::vector<std::string> texts;
  for (const auto& value : minuteOf({Method::Slow, ValueType::String, "state"})) {
    if (texts.empty() || texts.back() != value.sstring().data()) {
      texts.push_back(value.sstring().data());
    }
  }
  const std::map<std::string, std::string> next{
      {"ready", "running"}, {"running", "muted"}, {"muted", "ready"}};
  for (std::size_t i = 1; i < texts.size(); ++i) EXPECT_EQ(texts[i], next.at(texts[i - 1]));
  EXPECT_GE(texts.size(), 40u);
  EXPECT_LE(texts.size(), 121u);
}

TEST(Signals, UintStatesComeInTurn) {
  std::vector<unsigned> states;
  for (const auto& value : minuteOf({Method::Slow, ValueType::Uint, "state"})) {
    if (states.empty() || states.back() != value.suint()) states.push_back(value.suint());
  }
  for (std::size_t i = 1; i < states.size(); ++i) EXPECT_EQ(states[i], (states[i - 1] + 1) % 4);
  EXPECT_GE(states.size(), 40u);
  EXPECT_LE(states.size(), 121u);
}

TEST(KeySpec, TakesEverythingAfterTheSecondColonAsTheKey) {
  EXPECT_EQ(sim::parseKeySpec("slow:uint:a b:c"),
            (KeySpec{Method::Slow, ValueType::Uint, "a b:c"}));
}

}  // namespace
