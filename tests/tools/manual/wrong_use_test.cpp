// What is said to a command line that a parser refuses.
#include "tools/manual/WrongUse.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

class WrongUse : public ::testing::Test {
 protected:
  WrongUse() {
    app.add_option("FILE", file)->required();
    app.add_option("--for", seconds)->type_name("SECONDS");
    app.add_flag("--watch", watch)->excludes(app.add_flag("--quiet", quiet));
    app.add_option("--name", name)->check([](const std::string& text) {
      return text == "good" ? "" : "it is bad";
    });
  }

  std::string errorOf(std::vector<std::string> arguments) {
    // CLI11 takes them from the back.
    std::vector<std::string> reversed(arguments.rbegin(), arguments.rend());
    try {
      app.parse(reversed);
    } catch (const CLI::ParseError& error) {
      return manual::describeWrongUse(app, error);
    }
    return "accepted";
  }

  CLI::App app{"Do something", "tool"};
  std::string file;
  std::string name;
  double seconds = 0;
  bool watch = false;
  bool quiet = false;
};

TEST_F(WrongUse, NamesAnUnknownOptionAndWhatWasProbablyMeant) {
  EXPECT_EQ(errorOf({"x", "--wacth"}), "unknown option \"--wacth\", did you mean \"--watch\"?");
  EXPECT_EQ(errorOf({"x", "--colour", "red"}), "unknown option \"--colour\"");
}

TEST_F(WrongUse, NamesAnArgumentTooMany) {
  EXPECT_EQ(errorOf({"x", "y"}), "\"y\" is one argument too many");
}

TEST_F(WrongUse, NamesWhatIsMissing) {
  EXPECT_EQ(errorOf({"--watch"}), "FILE is missing");
  EXPECT_EQ(errorOf({"x", "--for"}), "--for needs a value: SECONDS");
}

TEST_F(WrongUse, NamesAnOptionThatIsGivenTwice) {
  EXPECT_EQ(errorOf({"x", "--for", "1", "--for", "2"}), "--for can be given only once");
}

TEST_F(WrongUse, NamesOptionsThatExcludeEachOther) {
  const std::string error = errorOf({"x", "--watch", "--quiet"});
  EXPECT_TRUE(error == "--watch can't be combined with --quiet" ||
              error == "--quiet can't be combined with --watch")
      << error;
}

TEST_F(WrongUse, SaysWhatACheckSays) {
  EXPECT_EQ(errorOf({"x", "--name", "y"}), "--name: it is bad");
}

}  // namespace
