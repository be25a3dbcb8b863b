// Text from anywhere, as a terminal may show it.
#include "tools/top/Text.h"

#include <gtest/gtest.h>

#include <clocale>

namespace {

using top::Text;

class TopText : public ::testing::Test {
 protected:
  TopText() { top::useUtf8(); }
  ~TopText() override { std::setlocale(LC_CTYPE, "C"); }
};

TEST_F(TopText, EscapesWhatATerminalTakesAsACommand) {
  EXPECT_EQ(top::textOf("a\x1b[2Jb"), L"a\\x1b[2Jb");
  EXPECT_EQ(top::textOf("\r\n\t\x7f"), L"\\x0d\\x0a\\x09\\x7f");
  EXPECT_EQ(top::textOf("\xc2\x9b"
                        "31m"),
            L"\\xc2\\x9b31m");  // a control sequence in one character
  EXPECT_EQ(top::textOf(std::string_view("\0", 1)), L"\\x00");
}

TEST_F(TopText, EscapesTheBackslashSoThatNoTextLooksEscaped) {
  EXPECT_EQ(top::textOf("\\x1b"), L"\\x5cx1b");
}

TEST_F(TopText, EscapesBrokenUtf8ByteByByte) {
  EXPECT_EQ(top::textOf("a\xff\xc3"), L"a\\xff\\xc3");
  EXPECT_EQ(top::textOf("\xed\xa0\x80"), L"\\xed\\xa0\\x80");  // half of a surrogate pair
  EXPECT_EQ(top::textOf("\xc3\xa4"), L"\u00e4");
}

TEST_F(TopText, EscapesCharactersThatOnlyChangeHowOthersAreDrawn) {
  EXPECT_EQ(top::textOf("a\u202eb"), L"a\\xe2\\x80\\xaeb");
  EXPECT_EQ(top::textOf("\u200d"), L"\\xe2\\x80\\x8d");
  EXPECT_EQ(top::textOf("\ufe0f"), L"\\xef\\xb8\\x8f");
}

TEST_F(TopText, CountsColumnsRatherThanCharacters) {
  EXPECT_EQ(top::widthOf(L"p\u00e9dale"), 6);
  EXPECT_EQ(top::widthOf(L"pe\u0301dale"), 6);
  EXPECT_EQ(top::widthOf(L"\u30ec\u30d9\u30eb"), 6);
}

TEST_F(TopText, FitsAWidthExactly) {
  EXPECT_EQ(top::fitted(L"ab", 4), L"ab  ");
  EXPECT_EQ(top::fittedRight(L"ab", 4), L"  ab");
  EXPECT_EQ(top::fitted(L"abcde", 4), L"abc\u2026");
  EXPECT_EQ(top::fitted(L"\u30ec\u30d9\u30eb", 4), L"\u30ec\u2026 ");
  EXPECT_EQ(top::fitted(L"\u30ec", 1), L"\u2026");
  EXPECT_EQ(top::fitted(L"abc", 0), L"");
}

TEST_F(TopText, EscapesEverythingBeyondAsciiInOtherLocales) {
  std::setlocale(LC_CTYPE, "C");
  EXPECT_EQ(top::textOf("\xc3\xa4"), L"\\xc3\\xa4");
  EXPECT_EQ(top::fitted(L"abcde", 4), L"abc~");
}

}  // namespace
