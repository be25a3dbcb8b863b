// Which keys are taken, and what expressions make of their names.
#include "tools/discover/Selection.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

using discover::Naming;
using discover::Renaming;
using discover::Selection;

TEST(Selection, TakesWhatOnePatternIncludesAndNoneExcludes) {
  const Selection all;
  EXPECT_TRUE(all.takes("out.level"));
  const Selection some{.include = {"out.*", "in.?"}, .exclude = {"*.peak", "out.[0-9]*"}};
  EXPECT_TRUE(some.takes("out.level"));
  EXPECT_TRUE(some.takes("out./a b\n"));
  EXPECT_TRUE(some.takes("in.1"));
  EXPECT_FALSE(some.takes("in.12"));
  EXPECT_FALSE(some.takes("OUT.level"));
  EXPECT_FALSE(some.takes("out.level.peak"));
  EXPECT_FALSE(some.takes("out.7"));
}

std::string renamed(const std::string& expression, const std::string& name) {
  return Renaming(expression)(name).value_or("(no match)");
}

TEST(Renaming, SubstitutesAsSedDoes) {
  EXPECT_EQ(renamed("s/out/in/", "out.out"), "in.out");
  EXPECT_EQ(renamed("s/out/in/g", "out.out"), "in.in");
  EXPECT_EQ(renamed("s/OUT/in/i", "out.level"), "in.level");
  EXPECT_EQ(renamed("s/OUT/in/", "out.level"), "(no match)");
  EXPECT_EQ(renamed("s/^([a-z]+)\\.([a-z]+)$/\\2 of \\1/", "out.level"), "level of out");
  EXPECT_EQ(renamed("s/level/&s/", "out.level"), "out.levels");
  EXPECT_EQ(renamed("s|/a/|b|", "x/a/y"), "xby");
  EXPECT_EQ(renamed("s/\\/a\\//b/", "x/a/y"), "xby");
  EXPECT_EQ(renamed("s/^out\\.//", "out.level"), "level");
}

std::string complaintAbout(const std::string& expression) {
  try {
    const Renaming renaming(expression);
    return "";
  } catch (const std::invalid_argument& error) {
    return error.what();
  }
}

TEST(Renaming, RefusesWhatIsNoSubstitution) {
  for (const char* const text : {"", "s", "s/", "s/a", "s/a/b", "s/a/b/c/", "y/a/b/", "s/a\\/b/"}) {
    EXPECT_EQ(complaintAbout(text),
              "\"" + std::string(text) + "\" is not of the form s/PATTERN/REPLACEMENT/");
  }
  EXPECT_EQ(complaintAbout("s/a/b/gx"), "\"s/a/b/gx\" ends with \"gx\", but the flags are g and i");
  EXPECT_TRUE(complaintAbout("s/(a/b/").starts_with("\"(a\" is not a regular expression: "));
}

TEST(Naming, AppliesRenamingsInTurnAndLeavesOtherKeysUnnamed) {
  Naming naming{.renamings = {Renaming("s/^out\\.//"), Renaming("s/level/gain/")}};
  EXPECT_EQ(naming("out.level"), "gain");
  EXPECT_EQ(naming("in.level"), "in.gain");
  EXPECT_EQ(naming("in.peak"), std::nullopt);
  naming.namesAll = true;
  EXPECT_EQ(naming("in.peak"), "in.peak");
}

}  // namespace
