// What the board learns about slots from their memory.
#include "tools/host/SlotBoard.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <limits>

#include "tests/support/SlotOf.h"

namespace {

using host::Clock;
using host::SlotBoard;
using host::SlotState;
using standin::Slot;
using standin::SlotSet;
using standin::SlotValue;
using namespace std::chrono_literals;

// A board of two slots, whose memory is the test's.
class Board : public ::testing::Test {
 protected:
  void write(const char* text) { std::strncpy(state, text, sizeof state); }

  // Looks, that many seconds after the first look.
  void look(int seconds) { board.sample(begin + std::chrono::seconds(seconds)); }

  std::vector<std::size_t> changedSince(std::uint64_t look) const {
    std::vector<std::size_t> indices;
    for (const auto& [i, slotState] : board.changesSince(look).slots) indices.push_back(i);
    return indices;
  }

  SlotState levelState() const { return board.states()[0]; }

  float level = -60.5f;
  sonalith_slotText state = "ready";
  const Clock::time_point begin = Clock::now();
  SlotBoard board{
      {slotOf(SlotSet::Fast, "level", SONALITH_SLOT_FLOAT, &level),
       slotOf(SlotSet::Slow, "state", SONALITH_SLOT_STRING, &state)},
      {{SlotSet::Fast, gateway::ValueType::Float, 0, "level", false, "out.level", 0.f},
       {SlotSet::Slow, gateway::ValueType::String, 0, "state", false, "dsp state", ""}}};
};

TEST_F(Board, KnowsNamesAndKeys) {
  ASSERT_EQ(board.labels().size(), 2u);
  EXPECT_EQ(board.labels()[1].set, SlotSet::Slow);
  EXPECT_EQ(board.labels()[1].type, gateway::ValueType::String);
  EXPECT_EQ(board.labels()[1].name, "state");
  EXPECT_EQ(board.labels()[1].key, "dsp state");
}

TEST_F(Board, TakesItsFirstLookAtOnce) {
  const auto states = board.states();
  EXPECT_EQ(states[0].value, SlotValue(-60.5f));
  EXPECT_EQ(states[1].value, SlotValue("ready"));
  EXPECT_FALSE(states[0].hasMoved());
  EXPECT_EQ(changedSince(0), std::vector<std::size_t>{});
  EXPECT_EQ(board.changeCount(), 0u);
}

TEST_F(Board, FindsWhatChangedAndWhen) {
  level = -12;
  look(5);
  EXPECT_EQ(levelState().value, SlotValue(-12.f));
  EXPECT_EQ(levelState().changed, begin + 5s);
  EXPECT_TRUE(levelState().hasMoved());
  EXPECT_FALSE(board.states()[1].hasMoved());
  EXPECT_EQ(board.changeCount(), 1u);
}

TEST_F(Board, KeepsTheTimeOfTheLatestChange) {
  level = -12;
  look(5);
  look(6);
  EXPECT_EQ(levelState().changed, begin + 5s);
  level = -11;
  look(7);
  EXPECT_EQ(levelState().changed, begin + 7s);
  EXPECT_EQ(levelState().changes, 2u);
}

TEST_F(Board, ReportsChangesSinceAnyLook) {
  level = -12;
  look(1);
  const auto first = board.changesSince(0);
  EXPECT_EQ(first.time, begin + 1s);
  ASSERT_EQ(first.slots.size(), 1u);
  EXPECT_EQ(first.slots[0].first, 0u);
  EXPECT_EQ(first.slots[0].second.value, SlotValue(-12.f));
  write("muted");
  look(2);
  EXPECT_EQ(changedSince(first.look), std::vector<std::size_t>{1});
  EXPECT_EQ(changedSince(0), (std::vector<std::size_t>{0, 1}));
  EXPECT_EQ(changedSince(board.changesSince(0).look), std::vector<std::size_t>{});
}

TEST_F(Board, SeesNoChangeInTheSameNan) {
  level = std::numeric_limits<float>::quiet_NaN();
  look(1);
  look(2);
  EXPECT_EQ(levelState().changes, 1u);
}

TEST_F(Board, SeesAChangeOfAZerosSign) {
  level = 0.f;
  look(1);
  level = -0.f;
  look(2);
  EXPECT_EQ(levelState().changes, 2u);
}

TEST_F(Board, OmitsKeysIfTheConfigurationHasOtherSlots) {
  const SlotBoard other(
      {slotOf(SlotSet::Fast, "level", SONALITH_SLOT_FLOAT, &level)},
      {{SlotSet::Fast, gateway::ValueType::Float, 0, "renamed", false, "out.level", 0.f}});
  EXPECT_EQ(other.labels()[0].key, "");
  const SlotBoard more({slotOf(SlotSet::Fast, "level", SONALITH_SLOT_FLOAT, &level)}, {});
  EXPECT_EQ(more.labels()[0].key, "");
}

}  // namespace
