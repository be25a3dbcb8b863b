// What the tools' JSON has in common.
#include "tools/common/Json.h"

#include <gtest/gtest.h>

#include <limits>

namespace {

using standin::SlotValue;
using tools::jsonOf;
using tools::jsonText;

TEST(Json, WritesAFloatInItsShortestForm) {
  EXPECT_EQ(jsonText(jsonOf(SlotValue(-12.3f))), "-12.3");
  EXPECT_EQ(jsonText(jsonOf(SlotValue(0.1f))), "0.1");
  EXPECT_EQ(jsonText(jsonOf(SlotValue(1e-40f))), "1e-40");
}

TEST(Json, SpellsWhatIsNoNumberAsText) {
  EXPECT_EQ(jsonText(jsonOf(SlotValue(std::numeric_limits<float>::infinity()))), "\"inf\"");
  EXPECT_EQ(jsonText(jsonOf(SlotValue(-std::numeric_limits<float>::infinity()))), "\"-inf\"");
  EXPECT_EQ(jsonText(jsonOf(SlotValue(std::numeric_limits<float>::quiet_NaN()))), "\"nan\"");
  EXPECT_EQ(jsonText(jsonOf(SlotValue(-std::numeric_limits<float>::quiet_NaN()))), "\"nan\"");
}

TEST(Json, WritesIntegersAndTexts) {
  EXPECT_EQ(jsonText(jsonOf(SlotValue(-2147483647 - 1))), "-2147483648");
  EXPECT_EQ(jsonText(jsonOf(SlotValue(4294967295u))), "4294967295");
  EXPECT_EQ(jsonText(jsonOf(SlotValue("a\"b\n"))), R"("a\"b\n")");
}

TEST(Json, ReplacesWhatIsNotUtf8) {
  EXPECT_EQ(jsonText(jsonOf(SlotValue("a\xff"))), "\"a\xef\xbf\xbd\"");
}

}  // namespace
