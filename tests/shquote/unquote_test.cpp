#include <gtest/gtest.h>

#include "tests/shquote/shquote_calls.h"

using namespace std::string_view_literals;

TEST(Unquote, WritesNothingForEmptyInput) {
  EXPECT_EQ(unquote("", 0), gives(""));
}

TEST(Unquote, CopiesTextWithoutQuoting) {
  EXPECT_EQ(unquote("abc"), gives("abc"));
}

TEST(Unquote, KeepsBlanks) {
  EXPECT_EQ(unquote("a b"), gives("a b"));
}

TEST(Unquote, TreatsWhiteSpaceAndHashesAsOrdinaryBytes) {
  EXPECT_EQ(unquote(" # a\tb\n# c "), gives(" # a\tb\n# c "));
}

TEST(Unquote, TreatsANulByteAsAnOrdinaryByte) {
  EXPECT_EQ(unquote("a\0b'\0'\"\0\"\\\0"sv), gives("a\0b\0\0\0"sv));
}

TEST(Unquote, JoinsQuotedAndBarePieces) {
  EXPECT_EQ(unquote("a\"b\"'c'\\d e"), gives("abcd e"));
}

TEST(Unquote, RemovesAnEmptyPairOfEitherQuote) {
  EXPECT_EQ(unquote("''"), gives(""));
  EXPECT_EQ(unquote("\"\""), gives(""));
}

TEST(Unquote, CopiesSingleQuotedTextWithItsBackslashes) {
  EXPECT_EQ(unquote("'a\\nb\\\\\"$`#'"), gives("a\\nb\\\\\"$`#"));
  EXPECT_EQ(unquote("'a\\'b"), gives("a\\b"));
}

TEST(Unquote, RejectsASingleQuoteAsTheLastByte) {
  EXPECT_EQ(unquote("'"), fails(SHQUOTE_ERR_UNTERMINATED));
  EXPECT_EQ(unquote("abc'"), fails(SHQUOTE_ERR_UNTERMINATED));
}

TEST(Unquote, RejectsAnOpenSingleQuote) {
  EXPECT_EQ(unquote("'abc"), fails(SHQUOTE_ERR_UNTERMINATED));
  EXPECT_EQ(unquote("'a''b"), fails(SHQUOTE_ERR_UNTERMINATED));
}

TEST(Unquote, RejectsAnOpenDoubleQuote) {
  EXPECT_EQ(unquote("\""), fails(SHQUOTE_ERR_UNTERMINATED));
  EXPECT_EQ(unquote("a\"b"), fails(SHQUOTE_ERR_UNTERMINATED));
}

TEST(Unquote, RejectsDoubleQuotedTextThatEndsInABackslash) {
  EXPECT_EQ(unquote("\"a\\"), fails(SHQUOTE_ERR_UNTERMINATED));
}

TEST(Unquote, RejectsADoubleQuotedEscapeThatUsesUpTheInput) {
  EXPECT_EQ(unquote("\"a\\\""), fails(SHQUOTE_ERR_UNTERMINATED));
}

TEST(Unquote, DropsABackslashAsTheLastByte) {
  EXPECT_EQ(unquote("\\"), gives(""));
  EXPECT_EQ(unquote("abc\\"), gives("abc"));
}

TEST(Unquote, DropsABackslashWithTheNewlineAfterIt) {
  EXPECT_EQ(unquote("\\\n"), gives(""));
  EXPECT_EQ(unquote("a\\\nb"), gives("ab"));
}

TEST(Unquote, KeepsTheByteAfterABackslash) {
  EXPECT_EQ(unquote("\\a\\'\\\"\\\\\\ \\#\\\t\\$"), gives("a'\"\\ #\t$"));
}

TEST(Unquote, NeedsExactlyTheRoomOfItsOutput) {
  expectExactRoom(unquote, "run", gives("run"));
  expectExactRoom(unquote, "'single'", gives("single"));
  expectExactRoom(unquote, "\"double\\a\\$\"", gives("double\\a$"));
  expectExactRoom(unquote, "\\e", gives("e"));
  expectExactRoom(unquote, "a\"b\"'c'\\d e", gives("abcd e"));
}

TEST(Unquote, NeedsNoRoomForEmptyPieces) {
  EXPECT_EQ(unquote("''\"\"\\\n\\", 0), gives(""));
}

TEST(Unquote, ReportsAnOpenSingleQuoteBeforeMissingRoom) {
  EXPECT_EQ(unquote("'abc", 0), fails(SHQUOTE_ERR_UNTERMINATED));
}

TEST(Unquote, ReportsMissingRoomBeforeAnOpenDoubleQuote) {
  EXPECT_EQ(unquote("\"abc", 2), fails(SHQUOTE_ERR_NO_ROOM));
}
