// Slot names made from keys.
#include "tools/discover/CustomKeys.h"

#include <gtest/gtest.h>

namespace {

using discover::CustomKeys;
using standin::SlotSet;

std::string nameOfOne(const std::string& key) {
  return CustomKeys().nameFor(SlotSet::Fast, key);
}

TEST(CustomKeys, JoinTheWordsOfTheKey) {
  EXPECT_EQ(nameOfOne("out.level"), "out_level");
  EXPECT_EQ(nameOfOne("  a - b  "), "a_b");
  EXPECT_EQ(nameOfOne("__a__"), "a");
  EXPECT_EQ(nameOfOne("Ch1/Peak dB"), "Ch1_Peak_dB");
  EXPECT_EQ(nameOfOne("gr\xc3\xb6\xc3\x9f"
                      "e"),
            "gr_e");
}

TEST(CustomKeys, AreCalledMeterForKeysWithoutLettersAndDigits) {
  EXPECT_EQ(nameOfOne("\xc3\xa4"), "meter");
  EXPECT_EQ(nameOfOne("..."), "meter");
}

TEST(CustomKeys, AreUniqueInTheirSet) {
  CustomKeys names;
  EXPECT_EQ(names.nameFor(SlotSet::Fast, "a.b"), "a_b");
  EXPECT_EQ(names.nameFor(SlotSet::Fast, "a b"), "a_b_2");
  EXPECT_EQ(names.nameFor(SlotSet::Fast, "a_b_2"), "a_b_2_2");
  EXPECT_EQ(names.nameFor(SlotSet::Fast, "a-b"), "a_b_3");
  EXPECT_EQ(names.nameFor(SlotSet::Slow, "a-b"), "a_b");
}

TEST(CustomKeys, NeverBeginWithTheGeneratedPrefix) {
  CustomKeys names;
  EXPECT_EQ(names.nameFor(SlotSet::Fast, "gateway_float_3"), "meter_gateway_float_3");
  EXPECT_EQ(names.nameFor(SlotSet::Fast, "gateway.int"), "meter_gateway_int");
  EXPECT_EQ(names.nameFor(SlotSet::Fast, "gateway int"), "meter_gateway_int_2");
  EXPECT_EQ(names.nameFor(SlotSet::Fast, "gateway"), "gateway");
}

TEST(CustomKeys, FitTheirSlotEvenWithANumber) {
  CustomKeys names;
  const std::string key(150, 'k');
  EXPECT_EQ(names.nameFor(SlotSet::Fast, key), std::string(99, 'k'));
  EXPECT_EQ(names.nameFor(SlotSet::Fast, key + "1"), std::string(97, 'k') + "_2");
}

}  // namespace
