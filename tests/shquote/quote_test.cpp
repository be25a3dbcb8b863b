#include <gtest/gtest.h>

#include "tests/shquote/shquote_calls.h"

using namespace std::string_view_literals;

TEST(Quote, QuotesEvenTextThatNeedsNoQuotes) {
  EXPECT_EQ(quote("abc"), gives("'abc'"));
}

TEST(Quote, WritesAPairOfQuotesForEmptyInput) {
  EXPECT_EQ(quote(""), gives("''"));
}

TEST(Quote, WritesSixBytesForOneQuote) {
  EXPECT_EQ(quote("'"), gives("''\\'''"));
}

TEST(Quote, ClosesAndReopensTheQuoteAroundEachQuoteOfTheInput) {
  EXPECT_EQ(quote("a'b''c"), gives("'a'\\''b'\\'''\\''c'"));
}

TEST(Quote, CopiesEveryOtherByteUnchanged) {
  EXPECT_EQ(quote("a \t\n\"$`\\#\0\r\xff"sv), gives("'a \t\n\"$`\\#\0\r\xff'"sv));
}

TEST(Quote, CopiesALongRun) {
  const std::string run(100000, 'x');
  EXPECT_EQ(quote(run), gives("'" + run + "'"));
}

TEST(Quote, NeedsTheInputLengthPlusTwoPlusThreeForEachQuote) {
  expectExactRoom(quote, "", gives("''"));
  expectExactRoom(quote, "abc", gives("'abc'"));
  expectExactRoom(quote, "'", gives("''\\'''"));
  expectExactRoom(quote, "it's", gives("'it'\\''s'"));
}

TEST(Quote, WritesNothingWithoutRoom) {
  char buffer[] = {'#', '#'};
  char* out = buffer;
  std::size_t room = 0;
  EXPECT_EQ(c_shquote_quote(&out, &room, "a", 1), SHQUOTE_ERR_NO_ROOM);
  EXPECT_EQ(std::string_view(buffer, 2), "##");
  EXPECT_EQ(out, buffer);
  EXPECT_EQ(room, 0U);
}

TEST(Quote, WritesTheOpeningQuoteBeforeItRunsOutOfRoom) {
  char buffer[] = {'#', '#'};
  char* out = buffer;
  std::size_t room = 1;
  EXPECT_EQ(c_shquote_quote(&out, &room, "", 0), SHQUOTE_ERR_NO_ROOM);
  EXPECT_EQ(std::string_view(buffer, 2), "'#");
  EXPECT_EQ(out, buffer);
  EXPECT_EQ(room, 1U);
}

TEST(Quote, AdvancesTheCursorSoThatCallsCanFollowOneAnother) {
  char buffer[10];
  char* out = buffer;
  std::size_t room = sizeof(buffer);
  EXPECT_EQ(c_shquote_quote(&out, &room, "ab", 2), 0);
  EXPECT_EQ(c_shquote_quote(&out, &room, "c", 1), 0);
  EXPECT_EQ(room, 3U);
  EXPECT_EQ(std::string_view(buffer, sizeof(buffer) - room), "'ab''c'");
}
