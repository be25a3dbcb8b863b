// What --help prints, made from what a parser knows.
#include "tools/manual/Help.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace {

class Help : public ::testing::Test {
 protected:
  Help() {
    app.formatter(std::make_shared<manual::HelpFormatter>());
    app.set_help_flag("-h,--help", "Print this manual.");
    app.footer("About.\n\nOPTIONS\n\n{options}\n");
  }

  // The entries of the options, after that of --help.
  std::string options() const {
    const std::string first = "  -h, --help                Print this manual.\n";
    const std::string whole = app.help();
    return whole.substr(whole.find(first) + first.size());
  }

  CLI::App app{"Do something", "tool"};
  std::string text;
  double number = 0.5;
  bool flag = false;
};

TEST_F(Help, BeginsWithTitleUsageAndDescription) {
  app.add_option("FILE", text, "A file.")->required();
  EXPECT_EQ(app.help(),
            "tool - do something\n"
            "\n"
            "Usage: tool [OPTIONS] FILE\n"
            "\n"
            "About.\n"
            "\n"
            "OPTIONS\n"
            "\n"
            "  FILE                      A file.\n"
            "  -h, --help                Print this manual.\n");
}

TEST_F(Help, NamesThePathOfASubcommandAndListsThoseWithAGroup) {
  app.footer("{subcommands}\n{options}\n");
  auto* const shown = app.add_subcommand("shown", "Do this");
  app.add_subcommand("hidden", "Do that")->group("");
  shown->footer("{options}\n");
  EXPECT_TRUE(
      app.help().starts_with("tool - do something\n\nUsage: tool [OPTIONS] SUBCOMMAND\n\n"
                             "  shown       Do this.\n  -h, --help "))
      << app.help();
  EXPECT_TRUE(shown->help().starts_with("tool shown - do this\n\nUsage: tool shown [OPTIONS]\n"));
}

TEST_F(Help, ShowsTheValueOfAnOptionAndItsDefault) {
  app.add_option("--rate", number, "How often.")->type_name("N")->capture_default_str();
  app.add_option("--optional", text, "With or without.")
      ->type_name("WORD")
      ->expected(0, 1)
      ->default_str("x");
  EXPECT_EQ(options(),
            "  --rate N                  How often. Default: 0.5.\n"
            "  --optional [WORD]         With or without. Without a value: x.\n");
}

TEST_F(Help, DoesNotShowChoicesAsPartOfTheName) {
  app.add_option("--colour", text, "A colour.")
      ->type_name("NAME")
      ->check(CLI::IsMember({"red", "green"}));
  EXPECT_EQ(options(), "  --colour NAME             A colour.\n");
}

TEST_F(Help, NamesTheOptionsThatAnOptionExcludesOnBothSides) {
  auto* const first = app.add_flag("--first", flag, "One.");
  auto* const second = app.add_flag("--second", flag, "Two.");
  app.add_flag("--third", flag, "Three.")->excludes(second)->excludes(first);
  EXPECT_EQ(options(),
            "  --first                   One. Not with --third.\n"
            "  --second                  Two. Not with --third.\n"
            "  --third                   Three. Not with --first, --second.\n");
}

TEST_F(Help, WrapsDescriptionsBelowLongNames) {
  app.add_flag("--an-option-with-a-very-long-name", flag,
               "A description that is too long for what is left of a line of 79 columns.");
  EXPECT_EQ(options(),
            "  --an-option-with-a-very-long-name\n"
            "                            A description that is too long for what is left of\n"
            "                            a line of 79 columns.\n");
}

}  // namespace
