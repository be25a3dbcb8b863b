#include <gtest/gtest.h>

#include "tests/shquote/shquote_calls.h"

using namespace std::string_view_literals;

TEST(DoubleQuoted, ReadsTheTextBetweenTheQuotesAndStopsAfterThem) {
  EXPECT_EQ(copyDoubleQuoted("\"a b\"rest"), gives("a b", "rest"));
}

TEST(DoubleQuoted, AcceptsAnEmptyPairOfQuotes) {
  EXPECT_EQ(copyDoubleQuoted("\"\"", 0), gives(""));
}

TEST(DoubleQuoted, EscapedDoubleQuoteYieldsOnlyThatByte) {
  expectExactRoom(copyDoubleQuoted, "\"\\\"\"", gives("\""));
}

TEST(DoubleQuoted, EscapedDollarYieldsOnlyThatByte) {
  expectExactRoom(copyDoubleQuoted, "\"\\$\"", gives("$"));
}

TEST(DoubleQuoted, EscapedBackslashYieldsOnlyThatByte) {
  expectExactRoom(copyDoubleQuoted, "\"\\\\\"", gives("\\"));
}

TEST(DoubleQuoted, EscapedBackquoteYieldsOnlyThatByte) {
  expectExactRoom(copyDoubleQuoted, "\"\\`\"", gives("`"));
}

// Unlike outside quotes, where the newline goes with its backslash.
TEST(DoubleQuoted, EscapedNewlineStaysAndLosesOnlyItsBackslash) {
  expectExactRoom(copyDoubleQuoted, "\"\\\n\"", gives("\n"));
}

TEST(DoubleQuoted, BackslashStaysBeforeAnyOtherByte) {
  for (int value = 0; value < 256; ++value) {
    const char byte = static_cast<char>(value);
    if ("\"$\\`\n"sv.find(byte) != std::string_view::npos) continue;
    const std::string escape = {'\\', byte};
    SCOPED_TRACE(testing::PrintToString(escape));
    expectExactRoom(copyDoubleQuoted, "\"" + escape + "\"", gives(escape));
  }
}

TEST(DoubleQuoted, CopiesAllOtherBytesUnchanged) {
  EXPECT_EQ(copyDoubleQuoted("\"$a `b` 'c'\t\n#\0\""sv), gives("$a `b` 'c'\t\n#\0"sv));
  for (int value = 0; value < 256; ++value) {
    const char byte = static_cast<char>(value);
    if (byte == '"' || byte == '\\') continue;
    const std::string text = {byte, 'a', byte};
    SCOPED_TRACE(testing::PrintToString(text));
    expectExactRoom(copyDoubleQuoted, "\"" + text + "\"", gives(text));
  }
}

TEST(DoubleQuoted, CombinesRunsAndEscapes) {
  expectExactRoom(copyDoubleQuoted, "\"a\\\"b\\nc\\\\\" d", gives("a\"b\\nc\\", " d"));
}

TEST(DoubleQuoted, RejectsALoneOpeningQuote) {
  EXPECT_EQ(copyDoubleQuoted("\""), fails(SHQUOTE_ERR_UNTERMINATED));
}

TEST(DoubleQuoted, RejectsAnInputThatEndsInARun) {
  EXPECT_EQ(copyDoubleQuoted("\"abc"), fails(SHQUOTE_ERR_UNTERMINATED));
}

TEST(DoubleQuoted, RejectsABackslashAsTheLastByteEvenWithoutRoom) {
  EXPECT_EQ(copyDoubleQuoted("\"\\"), fails(SHQUOTE_ERR_UNTERMINATED));
  EXPECT_EQ(copyDoubleQuoted("\"\\", 0), fails(SHQUOTE_ERR_UNTERMINATED));
}

TEST(DoubleQuoted, RejectsAnEscapeThatUsesUpTheInput) {
  EXPECT_EQ(copyDoubleQuoted("\"\\\""), fails(SHQUOTE_ERR_UNTERMINATED));
  EXPECT_EQ(copyDoubleQuoted("\"\\a"), fails(SHQUOTE_ERR_UNTERMINATED));
}

TEST(DoubleQuoted, ReportsABrokenAssumptionForEmptyInput) {
  EXPECT_EQ(copyDoubleQuoted(""), fails(-131));
}

TEST(DoubleQuoted, ReportsABrokenAssumptionForAnyOtherFirstByte) {
  EXPECT_EQ(copyDoubleQuoted("a\"\""), fails(-131));
  EXPECT_EQ(copyDoubleQuoted("'\"\""), fails(-131));
}
