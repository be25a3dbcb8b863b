#include <gtest/gtest.h>

#include "tests/shquote/shquote_calls.h"

using namespace std::string_view_literals;

TEST(ParseArgv, SplitsAtRunsOfWhiteSpaceUpToATrailingNewline) {
  EXPECT_EQ(parseArgv("a  b\n"), splitsInto({"a", "b"}));
}

TEST(ParseArgv, RemovesQuotingFromEachWord) {
  EXPECT_EQ(parseArgv("Key='a b' \"#c\" d\\ e ''"), splitsInto({"Key=a b", "#c", "d e", ""}));
}

TEST(ParseArgv, FindsNoWordsInEmptyInput) {
  EXPECT_EQ(parseArgv(""), splitsInto({}));
}

TEST(ParseArgv, FindsNoWordsInBlanks) {
  EXPECT_EQ(parseArgv(" \t\n "), splitsInto({}));
}

TEST(ParseArgv, FindsNoWordsInAComment) {
  EXPECT_EQ(parseArgv("# a b"), splitsInto({}));
}

TEST(ParseArgv, SkipsCommentsBetweenWords) {
  EXPECT_EQ(parseArgv("a #b\nc # d"), splitsInto({"a", "c"}));
}

TEST(ParseArgv, KeepsEmptyWordsSeparate) {
  EXPECT_EQ(parseArgv("'' \"\" ''"), splitsInto({"", "", ""}));
}

TEST(ParseArgv, SplitsTheMostWordsThatAnInputCanHold) {
  std::string text = "a";
  for (int i = 1; i < 5000; ++i) text += " a";
  EXPECT_EQ(parseArgv(text), splitsInto(std::vector<std::string>(5000, "a")));
}

TEST(ParseArgv, RejectsANulByteAnywhere) {
  EXPECT_EQ(parseArgv("\0"sv), splitFails(SHQUOTE_ERR_EMBEDDED_NUL));
  EXPECT_EQ(parseArgv("ab\0"sv), splitFails(SHQUOTE_ERR_EMBEDDED_NUL));
}

TEST(ParseArgv, RejectsANulByteInAComment) {
  EXPECT_EQ(parseArgv("a #\0"sv), splitFails(SHQUOTE_ERR_EMBEDDED_NUL));
}

TEST(ParseArgv, RejectsANulByteInAQuote) {
  EXPECT_EQ(parseArgv("'\0'"sv), splitFails(SHQUOTE_ERR_EMBEDDED_NUL));
  EXPECT_EQ(parseArgv("\"\0\""sv), splitFails(SHQUOTE_ERR_EMBEDDED_NUL));
}

TEST(ParseArgv, ChecksForNulBytesBeforeItSplits) {
  EXPECT_EQ(parseArgv("'\0"sv), splitFails(SHQUOTE_ERR_EMBEDDED_NUL));
}

TEST(ParseArgv, RejectsAnOpenQuoteAfterGoodWords) {
  EXPECT_EQ(parseArgv("a b 'c"), splitFails(SHQUOTE_ERR_UNTERMINATED));
  EXPECT_EQ(parseArgv("a b \"c"), splitFails(SHQUOTE_ERR_UNTERMINATED));
  EXPECT_EQ(parseArgv("a b \"c\\"), splitFails(SHQUOTE_ERR_UNTERMINATED));
}

TEST(ParseArgv, PutsTheWordsAfterTheArrayInOneBlock) {
  char** words = nullptr;
  std::size_t count = 0;
  ASSERT_EQ(c_shquote_parse_argv(&words, &count, "ab '' c", 7), 0);
  ASSERT_EQ(count, 3U);
  const char* texts = reinterpret_cast<const char*>(words + 4);
  EXPECT_EQ(std::vector<const char*>(words, words + 4),
            (std::vector<const char*>{texts, texts + 3, texts + 4, nullptr}));
  EXPECT_EQ(std::string_view(texts, 6), "ab\0\0c\0"sv);
  std::free(words);
}
