// Which slots the list shows, and in which order.
#include "tools/top/SlotList.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/SlotOf.h"

namespace {

using standin::Slot;
using standin::SlotSet;
using top::Freshness;
using top::Order;

// A list of five floats and a text, whose memory is the test's.
class List : public ::testing::Test {
 protected:
  Slot floatSlot(std::size_t i, const char* name) {
    return slotOf(SlotSet::Fast, name, SONALITH_SLOT_FLOAT, &floats[i]);
  }

  // Looks `seconds` after the first look.
  void look(int seconds) {
    board->sample(begin + std::chrono::seconds(seconds));
    list.update();
  }

  std::string shown() const {
    std::string names;
    for (const std::size_t i : list.shown()) names += list.row(i).label.name + " ";
    return names;
  }

  std::array<float, 5> floats{-20, std::nanf(""), 3, -60, 0};
  sonalith_slotText text = "on";
  const host::Clock::time_point begin = host::Clock::now();
  const std::vector<Slot> slots{floatSlot(0, "out_10"),
                                floatSlot(1, "out_9"),
                                floatSlot(2, "In"),
                                floatSlot(3, "aux"),
                                slotOf(SlotSet::Slow, "state", SONALITH_SLOT_STRING, &text),
                                slotOf(SlotSet::Engine, "gain", SONALITH_SLOT_FLOAT, &floats[4])};
  const std::vector<tools::ConfiguredSlot> configured{
      {SlotSet::Fast, gateway::ValueType::Float, 0, "out_10", false, "k.a", 0.f},
      {SlotSet::Fast, gateway::ValueType::Float, 1, "out_9", false, "k.b", 0.f},
      {SlotSet::Fast, gateway::ValueType::Float, 2, "In", false, "k.c", 0.f},
      {SlotSet::Fast, gateway::ValueType::Float, 3, "aux", false, "k.d", 0.f},
      {SlotSet::Slow, gateway::ValueType::String, 0, "state", false, "S t", ""},
      {SlotSet::Engine, gateway::ValueType::Float, 0, "gain", false, "g", 0.f}};
  const std::shared_ptr<host::SlotBoard> board =
      std::make_shared<host::SlotBoard>(slots, configured);
  top::SlotList list{board};
};

TEST_F(List, KeepsTheOrderOfTheConfigurationAtFirst) {
  EXPECT_EQ(shown(), "out_10 out_9 In aux state gain ");
  list.sort({Order::Configured, true});
  EXPECT_EQ(shown(), "gain state aux In out_9 out_10 ");
}

TEST_F(List, SortsNumbersWithinNamesAsNumbers) {
  list.sort({Order::Name});
  EXPECT_EQ(shown(), "In aux gain out_9 out_10 state ");
}

TEST_F(List, SortsByValueWithTextsAndNotANumberLast) {
  list.sort({Order::Value, true});
  EXPECT_EQ(shown(), "In gain out_10 aux out_9 state ");
  list.sort({Order::Value, false});
  EXPECT_EQ(shown(), "aux out_10 gain In state out_9 ");
}

TEST_F(List, SortsByChanges) {
  floats[3] = -50;
  look(1);
  floats[3] = -40;
  std::strcpy(text, "off");
  look(2);
  list.sort(top::sortingBy("changes"));
  EXPECT_EQ(shown(), "aux state out_10 out_9 In gain ");
}

TEST_F(List, SortsByAgeWithoutMovingChangingSlots) {
  floats[0] = -10;
  look(1);
  floats[3] = -50;
  look(3);
  floats[2] = 4;
  look(5);
  list.sort({Order::Age});
  EXPECT_EQ(shown(), "out_10 In aux out_9 state gain ");
  look(7);
  list.arrange();
  EXPECT_EQ(shown(), "In aux out_10 out_9 state gain ");
}

TEST_F(List, ShowsSlotsWhoseNameOrKeyContainsEachWord) {
  list.filter(" OUT  k.b");
  EXPECT_EQ(shown(), "out_9 ");
  list.filter("s t");
  EXPECT_EQ(shown(), "state ");
  list.filter("nowhere");
  EXPECT_EQ(shown(), "");
  list.filter("");
  EXPECT_EQ(list.shown().size(), 6u);
}

TEST_F(List, DoesNotChangeUntilItIsUpdated) {
  floats[0] = -1;
  board->sample(begin + std::chrono::seconds(1));
  EXPECT_EQ(list.row(0).state.value, standin::SlotValue(-20.f));
  list.update();
  EXPECT_EQ(list.row(0).state.value, standin::SlotValue(-1.f));
}

TEST_F(List, KnowsHowFreshAValueIs) {
  floats[0] = -1;
  look(1);
  EXPECT_EQ(list.row(0).freshness(list.time()), Freshness::Changing);
  look(7);
  EXPECT_EQ(list.row(0).freshness(list.time()), Freshness::Stale);
  EXPECT_EQ(list.row(1).freshness(list.time()), Freshness::Unchanged);
  EXPECT_EQ(list.row(5).freshness(list.time()), Freshness::Parameter);
}

}  // namespace
