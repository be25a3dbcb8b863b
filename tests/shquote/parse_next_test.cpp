#include <gtest/gtest.h>

#include "tests/shquote/shquote_calls.h"

using namespace std::string_view_literals;

namespace {

std::string afterA(std::string_view text) {
  return std::string("a").append(text);
}

// In a token that "a" has started, `text` adds `output`.
void expectJoinsToken(std::string_view text, std::string_view output) {
  expectExactRoom(parseNext, afterA(text), gives(afterA(output)));
}

}  // namespace

// ---- Bytes before a token ------------------------------------------------------------------

TEST(ParseNextBeforeAToken, SkipsTheWholeRunOfWhiteSpace) {
  EXPECT_EQ(parseNext(" \t\n \n\ta"), gives("a"));
  EXPECT_EQ(parseNext(" \t\n"), fails(SHQUOTE_ERR_END_OF_INPUT));
}

TEST(ParseNextBeforeAToken, SkipsACommentUpToItsNewline) {
  EXPECT_EQ(parseNext("# one\ntwo"), gives("two"));
  EXPECT_EQ(parseNext("#one\n # two\n\n#\nthree"), gives("three"));
}

TEST(ParseNextBeforeAToken, SkipsACommentUpToTheEndOfTheInput) {
  EXPECT_EQ(parseNext("# one"), fails(SHQUOTE_ERR_END_OF_INPUT));
  EXPECT_EQ(parseNext("#"), fails(SHQUOTE_ERR_END_OF_INPUT));
}

TEST(ParseNextBeforeAToken, IgnoresQuotesAndBackslashesInAComment) {
  EXPECT_EQ(parseNext("# it's \"\\\nx"), gives("x"));
}

TEST(ParseNextBeforeAToken, StartsATokenWithSingleQuotedText) {
  expectExactRoom(parseNext, "'a b\\'", gives("a b\\"));
}

TEST(ParseNextBeforeAToken, StartsATokenWithDoubleQuotedText) {
  expectExactRoom(parseNext, "\"a b\\$\"", gives("a b$"));
}

TEST(ParseNextBeforeAToken, StartsATokenWithAnEscapedByte) {
  expectExactRoom(parseNext, "\\ ", gives(" "));
  expectExactRoom(parseNext, "\\#a", gives("#a"));
}

TEST(ParseNextBeforeAToken, StartsATokenWithARunOfOtherBytes) {
  expectExactRoom(parseNext, "abc", gives("abc"));
}

// ---- Bytes within a token ------------------------------------------------------------------

TEST(ParseNextWithinAToken, EndsAtWhiteSpaceAndSkipsTheWholeRun) {
  EXPECT_EQ(parseNext("a \t\n \n\tb"), gives("a", "b"));
  EXPECT_EQ(parseNext("a\n"), gives("a"));
}

TEST(ParseNextWithinAToken, EndsAtEachOfTheThreeSeparators) {
  EXPECT_EQ(parseNext("a b"), gives("a", "b"));
  EXPECT_EQ(parseNext("a\tb"), gives("a", "b"));
  EXPECT_EQ(parseNext("a\nb"), gives("a", "b"));
}

TEST(ParseNextWithinAToken, TreatsAllOtherBytesAsOrdinary) {
  for (int value = 0; value < 256; ++value) {
    const char byte = static_cast<char>(value);
    if (" \t\n\"'\\#"sv.find(byte) != std::string_view::npos) continue;
    const std::string text = {byte, 'b'};
    SCOPED_TRACE(testing::PrintToString(text));
    expectJoinsToken(text, text);
    EXPECT_EQ(parseNext(text), gives(text));
  }
}

TEST(ParseNextWithinAToken, TreatsAHashAsAnOrdinaryByte) {
  expectJoinsToken("#b", "#b");
  expectJoinsToken("##", "##");
  EXPECT_EQ(parseNext("''#b"), gives("#b"));
}

TEST(ParseNextWithinAToken, JoinsSingleQuotedText) {
  expectJoinsToken("'b c'd", "b cd");
  expectJoinsToken("''b", "b");
}

TEST(ParseNextWithinAToken, JoinsDoubleQuotedText) {
  expectJoinsToken("\"b c\"d", "b cd");
  expectJoinsToken("\"\"b", "b");
}

TEST(ParseNextWithinAToken, JoinsAnEscapedByte) {
  expectJoinsToken("\\ b", " b");
  expectJoinsToken("\\'\\\"\\\\", "'\"\\");
}

TEST(ParseNextWithinAToken, JoinsARunOfOtherBytes) {
  expectJoinsToken("\\bcde", "bcde");
}

// ---- Where a token ends --------------------------------------------------------------------

TEST(ParseNext, FindsNoTokenInEmptyInput) {
  EXPECT_EQ(parseNext("", 0), fails(SHQUOTE_ERR_END_OF_INPUT));
}

TEST(ParseNext, LeavesACommentAfterATokenInTheInput) {
  EXPECT_EQ(parseNext("a #b"), gives("a", "#b"));
  EXPECT_EQ(parseNext("#b"), fails(SHQUOTE_ERR_END_OF_INPUT));
}

TEST(ParseNext, StopsAtTheBlankThatUnquoteKeeps) {
  EXPECT_EQ(parseNext("a b"), gives("a", "b"));
}

TEST(ParseNext, DoesNotSplitAtOtherWhiteSpace) {
  EXPECT_EQ(parseNext("a\rb\vc\fd e"), gives("a\rb\vc\fd", "e"));
  EXPECT_EQ(parseNext("\r"), gives("\r"));
}

TEST(ParseNext, TreatsANulByteAsAnOrdinaryByte) {
  EXPECT_EQ(parseNext("\0a\0 b"sv), gives("\0a\0"sv, "b"));
  EXPECT_EQ(parseNext("'\0'\"\0\"\\\0"sv), gives("\0\0\0"sv));
}

TEST(ParseNext, ReadsSuccessiveTokensOnTheSameCursors) {
  const std::string_view text = " one 'two'\n#three\nfour#";
  char buffer[16];
  char* out = buffer;
  std::size_t room = sizeof(buffer);
  const char* in = text.data();
  std::size_t left = text.size();
  EXPECT_EQ(c_shquote_parse_next(&out, &room, &in, &left), 0);
  EXPECT_EQ(c_shquote_parse_next(&out, &room, &in, &left), 0);
  EXPECT_EQ(c_shquote_parse_next(&out, &room, &in, &left), 0);
  EXPECT_EQ(c_shquote_parse_next(&out, &room, &in, &left), SHQUOTE_ERR_END_OF_INPUT);
  EXPECT_EQ(std::string_view(buffer, sizeof(buffer) - room), "onetwofour#");
  EXPECT_EQ(left, 0U);
}

// ---- Empty tokens and escapes that yield nothing -------------------------------------------

TEST(ParseNext, ReadsAPairOfSingleQuotesAsAnEmptyToken) {
  EXPECT_EQ(parseNext("''", 0), gives(""));
}

TEST(ParseNext, ReadsAPairOfDoubleQuotesAsAnEmptyToken) {
  EXPECT_EQ(parseNext("\"\"", 0), gives(""));
}

TEST(ParseNext, AddsNothingForAnEmptyPairWithinAToken) {
  EXPECT_EQ(parseNext("a''b"), gives("ab"));
}

TEST(ParseNext, FindsNoTokenInALoneBackslash) {
  EXPECT_EQ(parseNext("\\"), fails(SHQUOTE_ERR_END_OF_INPUT));
}

TEST(ParseNext, FindsNoTokenInABackslashNewline) {
  EXPECT_EQ(parseNext("\\\n"), fails(SHQUOTE_ERR_END_OF_INPUT));
  EXPECT_EQ(parseNext("\\\n\\"), fails(SHQUOTE_ERR_END_OF_INPUT));
}

TEST(ParseNext, SkipsWhiteSpaceAfterALeadingBackslashNewline) {
  EXPECT_EQ(parseNext("\\\n a b"), gives("a", "b"));
}

TEST(ParseNext, SkipsACommentAfterALeadingBackslashNewline) {
  EXPECT_EQ(parseNext("\\\n#a\nb"), gives("b"));
}

TEST(ParseNext, JoinsATokenAcrossABackslashNewline) {
  EXPECT_EQ(parseNext("a\\\nb c"), gives("ab", "c"));
}

TEST(ParseNext, DropsABackslashAfterAToken) {
  EXPECT_EQ(parseNext("a\\"), gives("a"));
}

// Quotes start a token even if it has no bytes, and nothing later undoes that.
TEST(ParseNext, KeepsAnEmptyTokenStartedAcrossADroppedEscape) {
  EXPECT_EQ(parseNext("''\\\n"), gives(""));
  EXPECT_EQ(parseNext("\"\"\\"), gives(""));
  EXPECT_EQ(parseNext("''\\\n b"), gives("", "b"));
  EXPECT_EQ(parseNext("''\\\n#b"), gives("#b"));
}

TEST(ParseNext, KeepsTheNewlineOfADoubleQuotedEscape) {
  EXPECT_EQ(parseNext("\"a\\\nb\""), gives("a\nb"));
}

// ---- Errors --------------------------------------------------------------------------------

TEST(ParseNext, RejectsASingleQuoteAsTheLastByte) {
  EXPECT_EQ(parseNext("'"), fails(SHQUOTE_ERR_UNTERMINATED));
  EXPECT_EQ(parseNext("a'"), fails(SHQUOTE_ERR_UNTERMINATED));
}

TEST(ParseNext, RejectsAnOpenSingleQuote) {
  EXPECT_EQ(parseNext("'a b"), fails(SHQUOTE_ERR_UNTERMINATED));
}

TEST(ParseNext, RejectsAnOpenDoubleQuote) {
  EXPECT_EQ(parseNext("\""), fails(SHQUOTE_ERR_UNTERMINATED));
  EXPECT_EQ(parseNext("a\"b"), fails(SHQUOTE_ERR_UNTERMINATED));
}

TEST(ParseNext, RejectsDoubleQuotedTextThatEndsInABackslash) {
  EXPECT_EQ(parseNext("\"a\\"), fails(SHQUOTE_ERR_UNTERMINATED));
}

TEST(ParseNext, RejectsADoubleQuotedEscapeThatUsesUpTheInput) {
  EXPECT_EQ(parseNext("\"a\\\""), fails(SHQUOTE_ERR_UNTERMINATED));
}

TEST(ParseNext, IgnoresAnOpenQuoteAfterItsToken) {
  EXPECT_EQ(parseNext("a 'b"), gives("a", "'b"));
}

TEST(ParseNext, NeedsNoRoomForSkippedInput) {
  EXPECT_EQ(parseNext(" #a\n\\\n ", 0), fails(SHQUOTE_ERR_END_OF_INPUT));
}

TEST(ParseNext, ReportsAnOpenSingleQuoteBeforeMissingRoom) {
  EXPECT_EQ(parseNext("'abc", 0), fails(SHQUOTE_ERR_UNTERMINATED));
}

TEST(ParseNext, NeedsExactlyTheRoomOfItsToken) {
  expectExactRoom(parseNext, " a\"b\\c\"'d'\\e#f g", gives("ab\\cde#f", "g"));
}
