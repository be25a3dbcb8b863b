// How plain text becomes the source of a man page. tests/docs/manual_pages_test.py shows the pages.
#include "tools/manual/ManPage.h"

#include <gtest/gtest.h>

namespace {

using manual::scdocOf;

TEST(ManPage, JoinsTheLinesOfAParagraph) {
  EXPECT_EQ(scdocOf("One\ntwo.\n\nThree.\n"), "One two.\n\nThree.\n\n");
}

TEST(ManPage, TakesALineOfCapitalsForASection) {
  EXPECT_EQ(scdocOf("EXIT STATUS\n\nText.\n"), "# EXIT STATUS\n\nText.\n\n");
}

TEST(ManPage, MakesOptionsAndNamesOfPagesBold) {
  EXPECT_EQ(scdocOf("See --watch-rate, grpc-gateway.conf(5) or well-known.\n"),
            "See *--watch-rate*, *grpc-gateway.conf*(5) or well-known.\n\n");
}

TEST(ManPage, KeepsCharactersThatMeanSomethingToScdoc) {
  EXPECT_EQ(scdocOf("a*b out_gain \\n\n"), "a\\*b out\\_gain \\\\n\n\n");
  EXPECT_EQ(scdocOf("- is a file.\n"), "\\- is a file.\n\n");
}

TEST(ManPage, SplitsEntriesIntoTermAndMeaning) {
  EXPECT_EQ(scdocOf("  -h, --help        Print\n"
                    "                    this.\n"
                    "  --set NAME=VALUE...\n"
                    "                    Set it.\n"),
            "*-h*, *--help*\n\tPrint this.\n\n*--set* _NAME=VALUE_...\n\tSet it.\n\n");
}

TEST(ManPage, UnderlinesNamesOfValuesAlone) {
  EXPECT_EQ(scdocOf("  SetParams 1 HEX|-  X.\n  NO_COLOR  Y.\n  every A..B  Z.\n"),
            "*SetParams* *1* _HEX_|-\n\tX.\n\n*NO\\_COLOR*\n\tY.\n\n*every* _A_.._B_\n\tZ.\n\n");
}

TEST(ManPage, KeepsIndentedLinesAsTheyAre) {
  EXPECT_EQ(scdocOf("Type:\n\n    tool a_b \\\n        --more\n"),
            "Type:\n\n```\ntool a_b \\\\\n    --more\n```\n\n");
}

}  // namespace
