// gatewayctl as a whole, before any sub-command.
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/SimProcess.h"

namespace {

using Arguments = std::vector<std::string>;

TEST(Gatewayctl, PrintsItsVersion) {
  ToolProcess tool({"--version"});
  EXPECT_EQ(tool.waitExit(), 0);
  EXPECT_EQ(tool.lines(), Arguments{"gatewayctl " GATEWAY_VERSION});
}

TEST(Gatewayctl, ListsItsSubcommandsInTheHelp) {
  ToolProcess tool({"--help"});
  EXPECT_EQ(tool.waitExit(), 0);
  for (const char* name : {"check", "demo", "discover", "host", "lsp", "probe", "record", "sim",
                           "top", "completion"}) {
    EXPECT_TRUE(tool.hasLine(std::string("  ") + name + " ")) << name;
  }
  EXPECT_FALSE(tool.hasLine("  manual ")) << "which is for the build alone";
}

TEST(Gatewayctl, ReportsWrongUseWithASuggestion) {
  const std::string help = "Run \"gatewayctl --help\" for its manual.\n";
  for (const auto& [arguments, error] : std::vector<std::pair<Arguments, std::string>>{
           {{},
            "a sub-command is missing: check, demo, discover, host, lsp, probe, record, sim, top, "
            "completion\n"},
           {{"--bad"}, "unknown option \"--bad\"\n"},
           {{"dance"}, "unknown sub-command \"dance\"\n"},
           {{"hots", "gateway.conf"}, "unknown sub-command \"hots\", did you mean \"host\"?\n"}}) {
    ToolProcess tool(arguments);
    EXPECT_EQ(tool.waitExit(), 2);
    EXPECT_EQ(tool.errors(), "gatewayctl: " + error + help);
  }
}

TEST(Gatewayctl, NamesTheSubcommandThatFails) {
  ToolProcess tool({"sim", "--config", "/nowhere/gateway.conf"});
  EXPECT_EQ(tool.waitExit(), 1);
  EXPECT_EQ(tool.errors(),
            "gatewayctl sim: can't read /nowhere/gateway.conf: No such file or directory\n");
}

// A full disk must not go unnoticed.
TEST(Gatewayctl, FailsWhenItsOutputIsLost) {
  for (const std::string arguments :
       {"--help", "--version", "host --help", "check --list-rules", "check --explain bad-line",
        "completion bash", "sim --meters 127.0.0.1:0 --for 0"}) {
    ToolProcess tool({"-c", std::string(GATEWAYCTL_PATH) + " " + arguments + " >/dev/full"},
                     "/bin/sh");
    EXPECT_EQ(tool.waitExit(), 1) << arguments;
    EXPECT_NE(tool.errors().find(": can't write to standard output\n"), std::string::npos)
        << tool.errors();
  }
}

// Each manual has all its parts, and no placeholder of its source is left.
TEST(Gatewayctl, PrintsAManualOfEachSubcommand) {
  for (const char* name : {"check", "demo", "discover", "host", "lsp", "probe", "record", "sim",
                           "top", "completion", "manual"}) {
    ToolProcess tool({name, "--help"});
    EXPECT_EQ(tool.waitExit(), 0) << tool.errors();
    EXPECT_TRUE(tool.hasLine("  -h, --help ")) << name;
    EXPECT_FALSE(tool.hasLine("{")) << name;
  }
}

// The longest line that could be broken: without literal blocks, lines of a single word, and terms
// on a line of their own.
std::size_t widthOf(const std::vector<std::string>& lines) {
  constexpr std::size_t literalIndentation = 4;
  std::size_t width = 0;
  bool isFirst = true;
  bool isLiteral = false;
  for (const std::string& line : lines) {
    const std::size_t start = std::min(line.find_first_not_of(" \r"), line.size());
    if (isFirst) isLiteral = start >= literalIndentation;
    isFirst = start == line.size();
    const bool isTerm = start == 2 && line.find("  ", start) == line.npos;
    const bool isBreakable = !isLiteral && !isTerm && line.find(' ', start) != line.npos;
    if (isBreakable) width = std::max(width, line.size());
  }
  return width;
}

TEST(Gatewayctl, WrapsItsHelpToTheTerminal) {
  for (const char* name : {"check", "demo", "discover", "host", "lsp", "probe", "record", "sim",
                           "top", "completion"}) {
    ToolProcess usual({"-c", std::string("unset COLUMNS; ") + GATEWAYCTL_PATH + " --help"},
                      "/bin/sh");
    EXPECT_EQ(usual.waitExit(), 0);
    EXPECT_LE(widthOf(usual.lines()), 79u);
    std::vector<std::string> words;
    for (const std::size_t columns : {40u, 60u, 80u, 100u, 500u}) {
      ToolProcess tool({"-c", "COLUMNS=" + std::to_string(columns) + " " + GATEWAYCTL_PATH + " " +
                                  name + " --help"},
                       "/bin/sh");
      EXPECT_EQ(tool.waitExit(), 0);
      EXPECT_LT(widthOf(tool.lines()), std::min<std::size_t>(columns, 100)) << name;
      std::vector<std::string> same;
      for (const std::string& line : tool.lines()) {
        std::istringstream text(line);
        for (std::string word; text >> word;) same.push_back(word);
      }
      if (words.empty()) words = same;
      EXPECT_EQ(same, words) << name << " has the same words at " << columns << " columns";
    }
  }
}

// `script` runs its command in a terminal.
TEST(Gatewayctl, KnowsTheWidthOfTheTerminal) {
  ToolProcess terminal({"-c", std::string("unset COLUMNS; script -qec 'stty cols 50; ") +
                                  GATEWAYCTL_PATH + " sim --help' /dev/null </dev/null"},
                       "/bin/sh");
  EXPECT_EQ(terminal.waitExit(), 0);
  const std::size_t width = widthOf(terminal.lines());  // each line ends with a carriage return
  EXPECT_LE(width, 50u);
  EXPECT_GT(width, 40u);
}

}  // namespace
