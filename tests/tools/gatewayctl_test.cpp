// gatewayctl as a whole, before any sub-command.
#include <gtest/gtest.h>

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
  for (const char* name : {"check", "demo", "discover", "host", "sim", "top", "completion"}) {
    EXPECT_TRUE(tool.hasLine(std::string("  ") + name + " ")) << name;
  }
  EXPECT_FALSE(tool.hasLine("  manual ")) << "which is for the build alone";
}

TEST(Gatewayctl, ReportsWrongUseWithASuggestion) {
  const std::string help = "Run \"gatewayctl --help\" for its manual.\n";
  for (const auto& [arguments, error] : std::vector<std::pair<Arguments, std::string>>{
           {{}, "a sub-command is missing: check, demo, discover, host, sim, top, completion\n"},
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

// Every part of a manual is in place, and nothing of it is written in the way of its source.
TEST(Gatewayctl, PrintsAManualOfEachSubcommand) {
  for (const char* name :
       {"check", "demo", "discover", "host", "sim", "top", "completion", "manual"}) {
    ToolProcess tool({name, "--help"});
    EXPECT_EQ(tool.waitExit(), 0) << tool.errors();
    EXPECT_TRUE(tool.hasLine("  -h, --help ")) << name;
    EXPECT_FALSE(tool.hasLine("{")) << name;
  }
}

}  // namespace
