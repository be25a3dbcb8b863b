// How the texts of manuals are put together, and what checks of options say.
#include "tools/common/ManualText.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <stdexcept>

#include "tools/common/Numbers.h"

namespace {

TEST(ManualText, HasItsPartsInPlace) {
  EXPECT_EQ(tools::filled("A\n{one}\nB\n{two}\n", {{"two", "2\n"}, {"one", "1\n1\n"}}),
            "A\n1\n1\nB\n2\n");
}

TEST(ManualText, HasALineForEachPart) {
  EXPECT_THROW(tools::filled("A {one}.\n", {{"one", "1\n"}}), std::logic_error);
}

TEST(ManualText, KnowsTheExitCodesOfEverySubcommand) {
  EXPECT_TRUE(tools::manualOf("{exit codes}\n").starts_with("  0    Success.\n  1    Failure. "));
}

TEST(Wrapped, KeepsLinesWithinTheWidth) {
  EXPECT_EQ(tools::wrapped("one two three", 0, 7), "one two\nthree\n");
  EXPECT_EQ(tools::wrapped("one two three", 2, 9), "  one two\n  three\n");
  EXPECT_EQ(tools::wrapped("one two three", 2, 8), "  one\n  two\n  three\n");
}

TEST(Wrapped, GivesALongWordALineOfItsOwn) {
  EXPECT_EQ(tools::wrapped("a much-too-long b", 0, 5), "a\nmuch-too-long\nb\n");
}

TEST(ManualEntry, StartsItsMeaningBesideTheTermOrBelowALongOne) {
  EXPECT_EQ(tools::manualEntry("quit", "End.", 8), "  quit  End.\n");
  EXPECT_EQ(tools::manualEntry("leave", "End.", 8), "  leave\n        End.\n");
}

// ---- Wrapping anew ----------------------------------------------------------------------------

constexpr const char* manual =
    "Takes a file and\nshows it.\n"
    "\n"
    "OPTIONS\n"
    "\n"
    "  --file FILE       The file that it\n"
    "                    shows.\n"
    "  --quite-another-option\n"
    "                    Something else.\n"
    "\n"
    "    show --file a-long-name-that-is-not-broken\n";

TEST(Rewrapped, KeepsATextThatFits) {
  EXPECT_EQ(tools::rewrapped(manual, 60),
            "Takes a file and shows it.\n"
            "\n"
            "OPTIONS\n"
            "\n"
            "  --file FILE       The file that it shows.\n"
            "  --quite-another-option\n"
            "                    Something else.\n"
            "\n"
            "    show --file a-long-name-that-is-not-broken\n");
}

TEST(Rewrapped, PutsMeaningsBelowTheirTermsInANarrowTerminal) {
  EXPECT_EQ(tools::rewrapped(manual, 20),
            "Takes a file and\n"
            "shows it.\n"
            "\n"
            "OPTIONS\n"
            "\n"
            "  --file FILE\n"
            "      The file that\n"
            "      it shows.\n"
            "  --quite-another-option\n"
            "      Something\n"
            "      else.\n"
            "\n"
            "    show --file a-long-name-that-is-not-broken\n");
}

TEST(Rewrapped, BreaksNoWord) {
  EXPECT_EQ(tools::rewrapped("See --a-long-option.\n", 6), "See\n--a-long-option.\n");
}

TEST(NumbersFrom, RefusesOtherNumbersAndOtherTexts) {
  const auto check = tools::numbersFrom(0.1, 20.0);
  EXPECT_EQ(check("0.1"), "");
  EXPECT_EQ(check("20"), "");
  for (const char* wrong : {"0", "20.1", "nan", "inf", "1x", "", "fast"}) {
    EXPECT_EQ(check(wrong), "\"" + std::string(wrong) + "\" is not a number from 0.1 to 20");
  }
}

TEST(NumbersFrom, TakesWholeNumbersForIntegers) {
  const auto check = tools::numbersFrom<std::uint64_t>(1, UINT64_MAX);
  EXPECT_EQ(check("18446744073709551615"), "");
  for (const char* wrong : {"0", "-1", "1.5", "18446744073709551616"}) {
    EXPECT_EQ(check(wrong), "\"" + std::string(wrong) +
                                "\" is not a whole number from 1 to 18446744073709551615");
  }
}

}  // namespace
