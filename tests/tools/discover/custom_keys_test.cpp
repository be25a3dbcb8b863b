// Names of slots that are made of keys.
#include "tools/discover/CustomKeys.h"

#include <gtest/gtest.h>

namespace {

using discover::CustomKeys;
using standin::SlotSet;

std::string nameOfOne(const std::string& key) {
  return CustomKeys().nameFor(SlotSet::Fast, key);
}

TEST(CustomKeysOf, AreTheWordsOfTheKey) {
  EXPECT_EQ(nameOfOne("out.level"), "out_level");
  EXPECT_EQ(nameOfOne("  a - b  "), "a_b");
  EXPECT_EQ(nameOfOne("__a__"), "a");
  EXPECT_EQ(nameOfOne("Ch1/Peak dB"), "Ch1_Peak_dB");
  EXPECT_EQ(nameOfOne("gr\xc3\xb6\xc3\x9f"
                      "e"),
            "gr_e");
}

TEST(CustomKeysOf, HaveAWordInAnyCase) {
  EXPECT_EQ(nameOfOne("\xc3\xa4"), "meter");
  EXPECT_EQ(nameOfOne("..."), "meter");
}

TEST(CustomKeysOf, AreUniqueInTheirSet) {
  CustomKeys names;
  EXPECT_EQ(names.nameFor(SlotSet::Fast, "a.b"), "a_b");
  EXPECT_EQ(names.nameFor(SlotSet::Fast, "a b"), "a_b_2");
  EXPECT_EQ(names.nameFor(SlotSet::Fast, "a_b_2"), "a_b_2_2");
  EXPECT_EQ(names.nameFor(SlotSet::Fast, "a-b"), "a_b_3");
  EXPECT_EQ(names.nameFor(SlotSet::Slow, "a-b"), "a_b");
}

TEST(CustomKeysOf, AreNoneThatTheModuleMakesUp) {
  for (const std::string type : {"string", "int", "uint", "float"}) {
    EXPECT_EQ(nameOfOne("gateway." + type + ".3"), "gateway_" + type + "_3_2");
  }
  EXPECT_EQ(nameOfOne("gateway.float"), "gateway_float");
  EXPECT_EQ(nameOfOne("gateway.float.x"), "gateway_float_x");
}

TEST(CustomKeysOf, FitTheirSlotAlsoWithANumber) {
  CustomKeys names;
  const std::string key(150, 'k');
  EXPECT_EQ(names.nameFor(SlotSet::Fast, key), std::string(99, 'k'));
  EXPECT_EQ(names.nameFor(SlotSet::Fast, key + "1"), std::string(97, 'k') + "_2");
}

// A name that ends in a number can become a made-up one by being given a number.
TEST(CustomKeysOf, AreNotMadeUpOnesByTheirNumberEither) {
  CustomKeys names;
  EXPECT_EQ(names.nameFor(SlotSet::Fast, "gateway.int"), "gateway_int");
  const std::string second = names.nameFor(SlotSet::Fast, "gateway int");
  EXPECT_TRUE(second.starts_with("gateway_int_"));
  EXPECT_NE(second.find_first_not_of("0123456789", 12), second.npos) << second;
}

}  // namespace
