// The history that the host keeps for the live page: what it remembers of each family of signals,
// at which resolution, and in how much memory.
#include "tools/host/ValueHistory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <functional>
#include <limits>
#include <map>
#include <random>
#include <string>

namespace {

using gateway::ValueType;
using host::Clock;
using host::SlotBoard;
using host::SlotLabel;
using host::SlotState;
using host::ValueHistory;
using standin::SlotSet;
using standin::SlotValue;
using namespace std::chrono_literals;

constexpr auto lookPeriod = 50ms;
constexpr float nan = std::numeric_limits<float>::quiet_NaN();
constexpr float inf = std::numeric_limits<float>::infinity();

std::vector<SlotLabel> slotsOf(ValueType type, std::size_t count) {
  return std::vector<SlotLabel>(count, SlotLabel{SlotSet::Fast, type, "slot", "key"});
}

// Feeds a history with looks, as the host does.
class Recorder {
 public:
  explicit Recorder(const std::vector<SlotLabel>& labels,
                    std::size_t budget = ValueHistory::defaultBudget)
      : history(labels, begin, budget) {}

  // Takes a look at `time` after the beginning, which finds these values changed.
  void look(Clock::duration time, const std::map<std::size_t, SlotValue>& changed = {}) {
    SlotBoard::Changes changes{++looks_, begin + time, {}};
    for (const auto& [slot, value] : changed) {
      changes.slots.emplace_back(slot, SlotState{value, begin + time, 1});
    }
    history.take(changes);
  }

  const Clock::time_point begin = Clock::now();
  ValueHistory history;

 private:
  std::uint64_t looks_ = 0;
};

ValueHistory::Trace wholeTrace(const Recorder& recorder, std::size_t slot = 0) {
  return recorder.history.trace(slot, ValueHistory::span, 12000);
}

std::vector<float> floatsOf(const ValueHistory::Trace& trace,
                            SlotValue ValueHistory::Point::*member) {
  std::vector<float> values;
  for (const auto& point : trace.points) values.push_back(std::get<float>(point.*member));
  return values;
}

// ---- What is kept -------------------------------------------------------------------------------

TEST(ValueHistory, BeginsWithTheFirstChange) {
  Recorder recorder(slotsOf(ValueType::Float, 1));
  recorder.look(0ms);
  EXPECT_TRUE(wholeTrace(recorder).points.empty());
  recorder.look(100ms, {{0, -6.5f}});
  const auto trace = wholeTrace(recorder);
  ASSERT_EQ(trace.points.size(), 1u);
  EXPECT_EQ(trace.points[0].time, recorder.begin + 100ms);
  EXPECT_EQ(trace.points[0].last, SlotValue(-6.5f));
}

TEST(ValueHistory, KeepsEverySampleOfAFewSlots) {
  Recorder recorder(slotsOf(ValueType::Float, 349));
  EXPECT_EQ(wholeTrace(recorder).period, lookPeriod);
  std::vector<float> sent;
  for (int i = 0; i < 1000; ++i) {
    sent.push_back(std::sin(static_cast<float>(i)));
    recorder.look(i * lookPeriod, {{0, sent.back()}});
  }
  const auto trace = wholeTrace(recorder);
  EXPECT_EQ(floatsOf(trace, &ValueHistory::Point::last), sent);
  EXPECT_EQ(floatsOf(trace, &ValueHistory::Point::low), sent);
  EXPECT_EQ(floatsOf(trace, &ValueHistory::Point::high), sent);
}

TEST(ValueHistory, KeepsTheExtremesOfEachPeriod) {
  Recorder recorder(slotsOf(ValueType::Float, 20000));
  const auto period = wholeTrace(recorder).period;
  EXPECT_EQ(period, 2899ms);
  recorder.look(0ms, {{7, -20.f}});
  recorder.look(50ms, {{7, -3.f}});
  recorder.look(100ms, {{7, -60.f}});
  recorder.look(150ms, {{7, -18.f}});
  recorder.look(period, {{7, -17.f}});
  const auto trace = wholeTrace(recorder, 7);
  using Values = std::vector<float>;
  EXPECT_EQ(floatsOf(trace, &ValueHistory::Point::last), (Values{-18, -17}));
  EXPECT_EQ(floatsOf(trace, &ValueHistory::Point::low), (Values{-60, -17}));
  EXPECT_EQ(floatsOf(trace, &ValueHistory::Point::high), (Values{-3, -17}));
}

TEST(ValueHistory, KeepsIntegersExactly) {
  Recorder recorder(
      {{SlotSet::Fast, ValueType::Int, "a", ""}, {SlotSet::Fast, ValueType::Uint, "b", ""}});
  constexpr std::int32_t least = std::numeric_limits<std::int32_t>::min();
  constexpr std::uint32_t most = std::numeric_limits<std::uint32_t>::max();
  recorder.look(0ms, {{0, least}, {1, most - 1}});
  recorder.look(10ms, {{0, least + 1}, {1, most}});
  const auto ints = wholeTrace(recorder, 0);
  EXPECT_EQ(ints.points[0].low, SlotValue(least));
  EXPECT_EQ(ints.points[0].high, SlotValue(least + 1));
  const auto uints = wholeTrace(recorder, 1);
  EXPECT_EQ(uints.points[0].low, SlotValue(most - 1));
  EXPECT_EQ(uints.points[0].high, SlotValue(most));
}

TEST(ValueHistory, CountsNanAsAnExtremeOnlyIfThereIsNothingElse) {
  Recorder recorder(slotsOf(ValueType::Float, 20000));
  const auto period = wholeTrace(recorder).period;
  recorder.look(0ms, {{0, nan}});
  recorder.look(50ms, {{0, -6.f}});
  recorder.look(100ms, {{0, inf}});
  recorder.look(150ms, {{0, nan}});
  recorder.look(period, {{0, -inf}});
  recorder.look(period + 50ms, {{0, nan}});
  recorder.look(2 * period, {{0, 1.f}});
  recorder.look(3 * period, {{0, nan}});
  const auto trace = wholeTrace(recorder);
  const auto last = floatsOf(trace, &ValueHistory::Point::last);
  const auto low = floatsOf(trace, &ValueHistory::Point::low);
  const auto high = floatsOf(trace, &ValueHistory::Point::high);
  ASSERT_EQ(last.size(), 4u);
  EXPECT_TRUE(std::isnan(last[0]) && std::isnan(last[1]) && std::isnan(last[3]));
  EXPECT_EQ(low[0], -6);
  EXPECT_EQ(high[0], inf);
  EXPECT_EQ(low[1], -inf);
  EXPECT_EQ(high[1], -inf);
  EXPECT_TRUE(std::isnan(low[3]) && std::isnan(high[3]));
}

TEST(ValueHistory, KeepsNoTexts) {
  Recorder recorder({{SlotSet::Slow, ValueType::String, "state", ""},
                     {SlotSet::Slow, ValueType::Float, "level", ""}});
  EXPECT_FALSE(recorder.history.isKept(0));
  EXPECT_TRUE(recorder.history.isKept(1));
  EXPECT_FALSE(recorder.history.isKept(2));
  recorder.look(0ms, {{0, std::string("running")}, {1, 2.f}});
  EXPECT_TRUE(wholeTrace(recorder, 0).points.empty());
  EXPECT_TRUE(wholeTrace(recorder, 2).points.empty());
  EXPECT_EQ(wholeTrace(recorder, 1).points.size(), 1u);
  EXPECT_EQ(ValueHistory(slotsOf(ValueType::String, 50), Clock::now()).reserved(), 0u);
}

// ---- What a trace shows -------------------------------------------------------------------------

TEST(ValueHistory, BeginsAWindowWithTheValueHeldThen) {
  Recorder recorder(slotsOf(ValueType::Float, 1));
  recorder.look(0ms, {{0, 1.f}});
  recorder.look(1s, {{0, 2.f}});
  recorder.look(500s, {{0, 3.f}});
  recorder.look(510s);
  const auto trace = recorder.history.trace(0, 30s, 12000);
  EXPECT_EQ(floatsOf(trace, &ValueHistory::Point::last), (std::vector<float>{2, 3}));
  EXPECT_EQ(floatsOf(trace, &ValueHistory::Point::low), (std::vector<float>{2, 3}));
  EXPECT_EQ(trace.points[0].time, recorder.begin + 480s);
  EXPECT_EQ(trace.points[1].time, recorder.begin + 500s);
}

TEST(ValueHistory, KnowsAValueThatHasNotChangedForHours) {
  Recorder recorder(slotsOf(ValueType::Float, 1));
  recorder.look(0ms, {{0, 1.f}});
  recorder.look(5h);
  const auto trace = wholeTrace(recorder);
  ASSERT_EQ(trace.points.size(), 1u);
  EXPECT_EQ(trace.points[0].last, SlotValue(1.f));
  EXPECT_EQ(trace.points[0].time, recorder.begin + 5h - ValueHistory::span);
}

TEST(ValueHistory, JoinsPeriodsToLimitThePoints) {
  Recorder recorder(slotsOf(ValueType::Float, 1));
  for (int i = 0; i < 12000; ++i) recorder.look(i * lookPeriod, {{0, static_cast<float>(i)}});
  const auto trace = recorder.history.trace(0, ValueHistory::span, 100);
  EXPECT_EQ(trace.period, 6s);
  ASSERT_EQ(trace.points.size(), 100u);
  EXPECT_EQ(trace.points[1].time, recorder.begin + 6s);
  EXPECT_EQ(trace.points[1].low, SlotValue(120.f));
  EXPECT_EQ(trace.points[1].high, SlotValue(239.f));
  EXPECT_EQ(trace.points[1].last, SlotValue(239.f));
}

TEST(ValueHistory, ReportsGapsBetweenSamples) {
  Recorder recorder(slotsOf(ValueType::Float, 1));
  recorder.look(0ms);
  recorder.look(1s);
  EXPECT_TRUE(recorder.history.gaps().empty());
  recorder.look(22s);
  const ValueHistory::Gaps gap = {{recorder.begin + 1s, recorder.begin + 22s}};
  EXPECT_EQ(recorder.history.gaps(), gap);
  for (int i = 23; i <= 622; ++i) recorder.look(std::chrono::seconds(i));
  EXPECT_EQ(recorder.history.gaps(), gap);
  recorder.look(623s);
  EXPECT_TRUE(recorder.history.gaps().empty());
}

// ---- Every family of signals, compared with a history that forgets nothing ---------------------

using Random = std::mt19937;
// Returns the next value, or nothing if it does not change.
using Signal = std::function<std::optional<float>(int look, Random& random)>;

float levelOf(Random& random) {
  return std::uniform_real_distribution<float>(-60, 0)(random);
}

const std::map<std::string, Signal> signals = {
    {"steady", [](int, Random& random) { return levelOf(random); }},
    {"resting",
     [](int look, Random&) { return look == 3 ? std::optional<float>(-3.f) : std::nullopt; }},
    {"rare",
     [](int, Random& random) {
       return random() % 500 == 0 ? std::optional<float>(levelOf(random)) : std::nullopt;
     }},
    {"bursty",
     [](int look, Random& random) {
       return look / 200 % 7 == 0 ? std::optional<float>(levelOf(random)) : std::nullopt;
     }},
    {"infinite",
     [](int, Random& random) {
       const float values[] = {inf, -inf, levelOf(random)};
       return std::optional<float>(values[random() % 3]);
     }},
};

struct Sample {
  Clock::duration time;
  float value;
};

// The samples of [from, to).
std::vector<Sample> samplesIn(const std::vector<Sample>& all, Clock::duration from,
                              Clock::duration to) {
  const auto before = [](Clock::duration end) {
    return [end](const Sample& sample) { return sample.time < end; };
  };
  return {std::partition_point(all.begin(), all.end(), before(from)),
          std::partition_point(all.begin(), all.end(), before(to))};
}

class Families : public ::testing::TestWithParam<std::tuple<std::string, std::size_t>> {};

TEST_P(Families, MatchAHistoryThatForgetsNothing) {
  const auto& [name, slots] = GetParam();
  Recorder recorder(slotsOf(ValueType::Float, slots));
  Random random(17);
  std::vector<Sample> samples;
  constexpr int looks = 16000;  // more than ten minutes
  for (int i = 0; i < looks; ++i) {
    const auto time = i * lookPeriod;
    const auto value = signals.at(name)(i, random);
    if (value) samples.push_back({time, *value});
    recorder.look(time, value ? std::map<std::size_t, SlotValue>{{slots - 1, *value}}
                              : std::map<std::size_t, SlotValue>{});
  }
  const auto end = (looks - 1) * lookPeriod;
  const auto trace = wholeTrace(recorder, slots - 1);
  ASSERT_FALSE(trace.points.empty());
  EXPECT_LE(trace.points.front().time - recorder.begin,
            std::max<Clock::duration>(samples.front().time, end - ValueHistory::span));
  for (std::size_t i = 1; i < trace.points.size(); ++i) {
    const auto& point = trace.points[i];
    const auto begin = point.time - recorder.begin;
    const auto found = samplesIn(samples, begin, begin + trace.period);
    ASSERT_FALSE(found.empty());
    const auto [low, high] = std::minmax_element(
        found.begin(), found.end(), [](auto& a, auto& b) { return a.value < b.value; });
    EXPECT_EQ(point.low, SlotValue(low->value));
    EXPECT_EQ(point.high, SlotValue(high->value));
    EXPECT_EQ(point.last, SlotValue(found.back().value));
    const auto earlier = samplesIn(samples, 0s, begin);
    EXPECT_EQ(trace.points[i - 1].last, SlotValue(earlier.back().value));
  }
}

INSTANTIATE_TEST_SUITE_P(ValueHistory, Families,
                         ::testing::Combine(::testing::Values("steady", "resting", "rare", "bursty",
                                                              "infinite"),
                                            ::testing::Values(1, 20000)),
                         [](const auto& test) {
                           return std::get<0>(test.param) + "_" +
                                  std::to_string(std::get<1>(test.param));
                         });

// ---- Memory -------------------------------------------------------------------------------------

std::size_t residentBytes() {
  std::ifstream file("/proc/self/statm");
  std::size_t pages = 0;
  file >> pages >> pages;
  return pages * 4096;
}

TEST(ValueHistory, NeverReservesMoreThanItsBudget) {
  for (const std::size_t count : {1u, 349u, 350u, 2000u, 20000u, 300000u}) {
    const ValueHistory history(slotsOf(ValueType::Float, count), Clock::now());
    EXPECT_LE(history.reserved(), ValueHistory::defaultBudget) << count;
    EXPECT_GE(history.trace(0, ValueHistory::span, 12000).period, lookPeriod);
  }
}

TEST(ValueHistory, StaysWithinItsMemoryHoweverMuchChanges) {
  constexpr std::size_t count = 20000;
  ValueHistory history(slotsOf(ValueType::Float, count), Clock::time_point());
  SlotBoard::Changes changes;
  for (std::size_t slot = 0; slot < count; ++slot) changes.slots.emplace_back(slot, SlotState());
  const std::size_t before = residentBytes();
  for (auto time = Clock::time_point() + 1s; time < Clock::time_point(15min); time += 3s) {
    changes.time = time;
    for (auto& [slot, state] : changes.slots) {
      state = {static_cast<float>(slot), time, state.changes + 1};
    }
    history.take(changes);
  }
  EXPECT_LE(residentBytes() - before, ValueHistory::defaultBudget + (1U << 20));
  const auto trace = history.trace(count - 1, ValueHistory::span, 12000);
  EXPECT_LE(trace.points.size(), 209u);
  EXPECT_GT(trace.points.size(), 190u);
  EXPECT_EQ(trace.points.back().last, SlotValue(static_cast<float>(count - 1)));
}

TEST(ValueHistory, TakesNoMemoryForSlotsThatDoNotChange) {
  const std::size_t before = residentBytes();
  Recorder recorder(slotsOf(ValueType::Float, 20000));
  recorder.look(0ms, {{0, 1.f}});
  for (int second = 1; second < 3600; ++second) recorder.look(std::chrono::seconds(second));
  EXPECT_LE(residentBytes() - before, ValueHistory::defaultBudget / 8);
}

}  // namespace
