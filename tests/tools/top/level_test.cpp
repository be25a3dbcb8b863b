// The scales and bars of numbers.
#include "tools/top/Level.h"

#include <gtest/gtest.h>

#include <clocale>
#include <cmath>
#include <limits>

namespace {

using top::Range;

Range scaleOf(std::initializer_list<float> values, bool isParameter = false) {
  top::Seen seen;
  for (const float value : values) seen.add(value);
  return seen.scale(isParameter);
}

TEST(Scale, IsInDecibelsWhereTheyFit) {
  EXPECT_EQ(scaleOf({-59.f, -3.f}), (Range{-60, 0}));
  EXPECT_EQ(scaleOf({-59.f, 3.f}), (Range{-60, 12}));
  EXPECT_EQ(scaleOf({-6.5f}, true), (Range{-60, 12}));
}

TEST(Scale, HoldsAllValuesSoFar) {
  EXPECT_EQ(scaleOf({0.f, 0.4f}), (Range{0, 1}));
  EXPECT_EQ(scaleOf({44100.f}), (Range{0, 50000}));
  EXPECT_EQ(scaleOf({-70.f}), (Range{-100, 0}));
  EXPECT_EQ(scaleOf({-0.5f, 0.3f}), (Range{-0.5, 0.5}));
}

TEST(Scale, IgnoresWhatIsNotFinite) {
  const float infinity = std::numeric_limits<float>::infinity();
  EXPECT_EQ(scaleOf({std::nanf(""), infinity, -infinity, 3.f}), (Range{0, 5}));
  EXPECT_EQ(scaleOf({}), (Range{-60, 0}));
}

class Bar : public ::testing::Test {
 protected:
  Bar() { top::useUtf8(); }
  ~Bar() override { std::setlocale(LC_CTYPE, "C"); }

  const Range scale{-60, 0};
};

TEST_F(Bar, IsAsLongAsTheValuesPlaceOnTheScale) {
  EXPECT_EQ(top::barOf(-30, scale, 4), L"\u2588\u2588  ");
  EXPECT_EQ(top::barOf(-60, scale, 4), L"    ");
  EXPECT_EQ(top::barOf(-57.5, scale, 3), L"\u258f  ");  // an eighth of a column
  EXPECT_EQ(top::barOf(-42.5, scale, 3), L"\u2589  ");  // seven of them
}

TEST_F(Bar, EndsAtItsScale) {
  const double infinity = std::numeric_limits<double>::infinity();
  EXPECT_EQ(top::barOf(20, scale, 2), L"\u2588\u2588");
  EXPECT_EQ(top::barOf(infinity, scale, 2), L"\u2588\u2588");
  EXPECT_EQ(top::barOf(-infinity, scale, 2), L"  ");
}

TEST_F(Bar, IsEmptyForWhatIsNotANumber) {
  EXPECT_EQ(top::barOf(std::nan(""), scale, 2), L"  ");
  EXPECT_EQ(top::barOf(-30, scale, 0), L"");
}

TEST_F(Bar, UsesAsciiWithoutBlockCharacters) {
  std::setlocale(LC_CTYPE, "C");
  EXPECT_EQ(top::barOf(-30, scale, 4), L"##--");
}

}  // namespace
