// What the probe reports about readers that break the rules.

#include <gtest/gtest.h>
#include <ini.h>

#include <string>

#include "ini/conformance.h"

namespace ini::conformance {
namespace {

int readNothing(const char*, ini_handler, void*) {
  return 0;
}

int forgetBadLines(const char* filename, ini_handler handler, void* user) {
  ini_parse(filename, handler, user);
  return 0;
}

int addPair(const char* filename, ini_handler handler, void* user) {
  const int result = ini_parse(filename, handler, user);
  handler(user, "s", "one", "more");
  return result;
}

TEST(IniProbe, NamesTheCaseAndTheMissingPair) {
  EXPECT_EQ(firstFailure(readNothing),
            "\"a long line is read whole\": expected section \"\" name \"a\" value "
            "\"xxxxxxxxxxxxxxxxxxxx\"..."
            "\"xxxxxxxxxxxxxxxxxxxx\" (600 bytes), got result 0");
}

TEST(IniProbe, NamesTheCaseAndTheResult) {
  EXPECT_EQ(firstFailure(forgetBadLines),
            "\"1022 bytes and a newline are one line\": expected result 2, got result 0");
}

TEST(IniProbe, NamesTheCaseAndTheSurplusPair) {
  EXPECT_EQ(firstFailure(addPair),
            "\"a long line is read whole\": expected result 0, got section \"s\" name \"one\" "
            "value \"more\"");
}

TEST(IniProbe, SaysNothingWhenReadingsAgree) {
  const Reading reading{{{"s", "a", "1"}}, 2};
  EXPECT_EQ(firstDifference(reading, reading), "");
}

TEST(IniProbe, ReportsTheFirstPairThatDiffers) {
  const Reading expected{{{"s", "a", "1"}, {"s", "b", "2"}, {"s", "c", "3"}}, 0};
  const Reading got{{{"s", "a", "1"}, {"t", "b", "2"}}, 1};
  EXPECT_EQ(
      firstDifference(expected, got),
      "expected section \"s\" name \"b\" value \"2\", got section \"t\" name \"b\" value \"2\"");
}

TEST(IniProbe, ShowsUnprintableBytesAsHexNumbers) {
  EXPECT_EQ(quote(std::string("a\0\t\xEF\x7F", 5)), "\"a\\x00\\x09\\xEF\\x7F\"");
}

TEST(IniProbe, OmitsTheMiddleOfTextsOver60Bytes) {
  const std::string sixty = fill(60);
  EXPECT_EQ(quote(sixty), '"' + sixty + '"');
  EXPECT_EQ(quote(sixty + "y"), R"("xxxxxxxxxxxxxxxxxxxx"..."xxxxxxxxxxxxxxxxxxxy" (61 bytes))");
}

}  // namespace
}  // namespace ini::conformance
