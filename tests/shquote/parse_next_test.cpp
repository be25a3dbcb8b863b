#include <gtest/gtest.h>

#include "tests/shquote/shquote_calls.h"

using namespace std::string_view_literals;

namespace {

std::string behindA(std::string_view text) {
  return std::string("a").append(text);
}

// In the token that "a" has started, `text` gives `output`.
void expectJoinsToken(std::string_view text, std::string_view output) {
  expectExactRoom(parseNext, behindA(text), gives(behindA(output)));
}

}  // namespace

// ---- Bytes in front of a token -------------------------------------------------------------

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

TEST(ParseNextWithinAToken, TakesEveryByteWithoutAMeaningAsItIs) {
  for (int value = 0; value < 256; ++value) {
    const char byte = static_cast<char>(value);
    if (" \t\n\"'\\#"sv.find(byte) != std::string_view::npos) continue;
    const std::string text = {byte, 'b'};
    SCOPED_TRACE(testing::PrintToString(text));
    expectJoinsToken(text, text);
    EXPECT_EQ(parseNext(text), gives(text));
  }
}

TEST(ParseNextWithinAToken, TakesAHashAsAnOrdinaryByte) {
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

TEST(ParseNext, LeavesTheCommentBehindATokenInTheInput) {
  EXPECT_EQ(parseNext("a #b"), gives("a", "#b"));
  EXPECT_EQ(parseNext("#b"), fails(SHQUOTE_ERR_END_OF_INPUT));
}

TEST(ParseNext, StopsAtTheBlankThatUnquoteKeeps) {
  EXPECT_EQ(parseNext("a b"), gives("a", "b"));
}

TEST(ParseNext, SeparatesByNoOtherWhiteSpace) {
  EXPECT_EQ(parseNext("a\rb\vc\fd e"), gives("a\rb\vc\fd", "e"));
  EXPECT_EQ(parseNext("\r"), gives("\r"));
}

TEST(ParseNext, TreatsANulByteAsAnOrdinaryByte) {
  EXPECT_EQ(parseNext("\0a\0 b"sv), gives("\0a\0"sv, "b"));
  EXPECT_EQ(parseNext("'\0'\"\0\"\\\0"sv), gives("\0\0\0"sv));
}

TEST(ParseNext, GivesOneTokenAfterAnotherOnTheSameCursors) {
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

// ---- Empty tokens and escapes that give nothing --------------------------------------------

TEST(ParseNext, MakesAnEmptyTokenOfAPairOfSingleQuotes) {
  EXPECT_EQ(parseNext("''", 0), gives(""));
}

TEST(ParseNext, MakesAnEmptyTokenOfAPairOfDoubleQuotes) {
  EXPECT_EQ(parseNext("\"\"", 0), gives(""));
}

TEST(ParseNext, AddsNothingForAnEmptyPairWithinAToken) {
  EXPECT_EQ(parseNext("a''b"), gives("ab"));
}

TEST(ParseNext, MakesNoTokenOfALoneBackslash) {
  EXPECT_EQ(parseNext("\\"), fails(SHQUOTE_ERR_END_OF_INPUT));
}

TEST(ParseNext, MakesNoTokenOfABackslashAndNewline) {
  EXPECT_EQ(parseNext("\\\n"), fails(SHQUOTE_ERR_END_OF_INPUT));
  EXPECT_EQ(parseNext("\\\n\\"), fails(SHQUOTE_ERR_END_OF_INPUT));
}

TEST(ParseNext, TakesWhiteSpaceBehindALeadingBackslashNewlineAsSeparating) {
  EXPECT_EQ(parseNext("\\\n a b"), gives("a", "b"));
}

TEST(ParseNext, TakesACommentBehindALeadingBackslashNewline) {
  EXPECT_EQ(parseNext("\\\n#a\nb"), gives("b"));
}

TEST(ParseNext, JoinsTheTokenAcrossABackslashNewline) {
  EXPECT_EQ(parseNext("a\\\nb c"), gives("ab", "c"));
}

TEST(ParseNext, DropsABackslashBehindAToken) {
  EXPECT_EQ(parseNext("a\\"), gives("a"));
}

// A token that its quotes have started is not taken back, though it has no bytes.
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

TEST(ParseNext, RejectsASingleQuoteWithoutAMate) {
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

TEST(ParseNext, DoesNotSeeAnOpenQuoteBehindItsToken) {
  EXPECT_EQ(parseNext("a 'b"), gives("a", "'b"));
}

TEST(ParseNext, NeedsNoRoomToSkip) {
  EXPECT_EQ(parseNext(" #a\n\\\n ", 0), fails(SHQUOTE_ERR_END_OF_INPUT));
}

TEST(ParseNext, ReportsAnOpenSingleQuoteRatherThanTheRoomItWouldMiss) {
  EXPECT_EQ(parseNext("'abc", 0), fails(SHQUOTE_ERR_UNTERMINATED));
}

TEST(ParseNext, NeedsExactlyTheRoomOfItsToken) {
  expectExactRoom(parseNext, " a\"b\\c\"'d'\\e#f g", gives("ab\\cde#f", "g"));
}
