// Splits lines into words, and suggests a name for a mistyped one.
#include <gtest/gtest.h>

#include <stdexcept>

#include "tools/common/Suggestion.h"
#include "tools/common/Words.h"

namespace {

using tools::closestTo;
using tools::didYouMean;
using tools::quotedWordsOf;
using tools::wordsOf;

using Words = std::vector<std::string>;

TEST(Words, AreSeparatedByAnyNumberOfBlanks) {
  EXPECT_EQ(wordsOf("  send\tfast  0a \r"), (std::vector<std::string_view>{"send", "fast", "0a"}));
  EXPECT_EQ(wordsOf(" \t"), std::vector<std::string_view>{});
}

TEST(QuotedWords, KeepBlanksInQuotes) {
  EXPECT_EQ(quotedWordsOf("set state \"not ready\" 'a b'c"),
            (Words{"set", "state", "not ready", "a bc"}));
  EXPECT_EQ(quotedWordsOf("set state ''"), (Words{"set", "state", ""}));
  EXPECT_EQ(quotedWordsOf("  "), Words{});
}

TEST(QuotedWords, RefuseAnOpenQuote) {
  EXPECT_THROW(quotedWordsOf("set state \"not"), std::invalid_argument);
}

TEST(Escaped, PutsABackslashBeforeTheseCharactersAlone) {
  EXPECT_EQ(tools::escaped("a:b\\c-d", ":\\"), "a\\:b\\\\c-d");
}

TEST(Suggestion, IsTheClosestName) {
  const Words names{"out_gain", "in_gain", "preset"};
  EXPECT_EQ(closestTo("out_gian", names), "out_gain");  // swapped
  EXPECT_EQ(closestTo("outgain", names), "out_gain");   // missing
  EXPECT_EQ(closestTo("Preset", names), "preset");      // case
  EXPECT_EQ(closestTo("presets", names), "preset");     // extra
  EXPECT_EQ(closestTo("min_gain", names), "in_gain");
}

TEST(Suggestion, IsEmptyIfNoNameIsClose) {
  EXPECT_EQ(closestTo("level", {"out_gain", "preset"}), "");
  EXPECT_EQ(closestTo("ab", {"cd"}), "");
  EXPECT_EQ(closestTo("gain", {}), "");
}

TEST(Suggestion, EndsAMessage) {
  EXPECT_EQ(didYouMean("gian", {"gain"}), ", did you mean \"gain\"?");
  EXPECT_EQ(didYouMean("level", {"gain"}), "");
}

}  // namespace
