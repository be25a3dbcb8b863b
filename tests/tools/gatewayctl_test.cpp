// gatewayctl as a whole, before any sub-command.
#include <gtest/gtest.h>

#include "tests/support/SimProcess.h"

namespace {

TEST(Gatewayctl, TellsItsVersion) {
  ToolProcess tool({"--version"});
  EXPECT_EQ(tool.waitExit(), 0);
  EXPECT_EQ(tool.lines(), std::vector<std::string>{"gatewayctl " GATEWAY_VERSION});
}

TEST(Gatewayctl, HelpsWithCommandsAnExampleAndExitCodes) {
  ToolProcess tool({"--help"});
  EXPECT_EQ(tool.waitExit(), 0);
  for (const char* line : {"  check ", "  demo ", "  discover ", "  host ", "  sim ",
                           "Example: ", "  gatewayctl demo", "Exit codes: "}) {
    tool.waitLine(line);
  }
}

TEST(Gatewayctl, KnowsWhichCommandWasMeant) {
  ToolProcess tool({"hots"});
  EXPECT_EQ(tool.waitExit(), 2);
  EXPECT_EQ(tool.errors(),
            "gatewayctl: no command \"hots\", did you mean \"host\"?\n"
            "Run with --help for more information.\n");
}

TEST(Gatewayctl, GivesTwoForWrongUse) {
  for (const std::vector<std::string>& arguments :
       std::vector<std::vector<std::string>>{{}, {"--bad"}, {"dance"}}) {
    ToolProcess tool(arguments);
    EXPECT_EQ(tool.waitExit(), 2);
    EXPECT_NE(tool.errors(), "");
  }
}

}  // namespace
