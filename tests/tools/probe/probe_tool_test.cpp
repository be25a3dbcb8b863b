// The built program.
#include <csignal>
#include <nlohmann/json.hpp>

#include "tests/support/FileText.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/tools/probe/ProbeTest.h"

namespace probe {
namespace {

TEST(ProbeTool, SaysWhatItSawAndWhyItMatters) {
  const PlayingServer server;
  ToolProcess tool({"probe", server.meters, "--engine", server.engine, "--level", "1"});
  EXPECT_EQ(tool.waitExit(), 0) << tool.errors();
  const auto lines = tool.lines();
  ASSERT_GT(lines.size(), 2U);
  EXPECT_TRUE(lines[0].starts_with("held     connects (required): it answered after ")) << lines[0];
  EXPECT_EQ(lines[1],
            "         The server answers within ten seconds. Without a connection, nothing");
  EXPECT_EQ(lines.back(),
            "4 held, 0 failed (0 of them required), 0 skipped. Level 1 of 5 is reached. "
            "Reachable: server and methods are there.");
}

TEST(ProbeTool, WritesJsonAndJunitAboutAnUnfitServer) {
  const PlayingServer server({"--fault", "every 0.1: not-utf8 slow"});
  const TemporaryFolder folder;
  ToolProcess tool(
      {"probe", server.meters, "--level", "3", "--json", "--junit", folder.path("report.xml")});
  EXPECT_EQ(tool.waitExit(), 1) << tool.errors();
  std::string text;
  for (const auto& line : tool.lines()) text += line + "\n";
  const auto document = nlohmann::json::parse(text);
  EXPECT_EQ(document["exit_code"], 1);
  EXPECT_EQ(document["reached"], 2);
  EXPECT_EQ(document["target"], server.meters);
  EXPECT_NE(::textOf(folder.path("report.xml")).find("failures=\"1\""), std::string::npos);
}

TEST(ProbeTool, EndsWith2IfAServerCannotBeReached) {
  ToolProcess tool({"probe", unusedTarget()});
  EXPECT_EQ(tool.waitExit(), 2);
  EXPECT_TRUE(tool.hasLine("failed   connects (required): nothing answers at 127.0.0.1:"));
}

TEST(ProbeTool, ReportsWhatItSawWhenInterrupted) {
  const PlayingServer server({"--fault", "at 0: stall"});
  ToolProcess text({"probe", server.meters, "--for", "3600"});
  text.waitLine("held     connects");
  text.signal(SIGINT);
  EXPECT_EQ(text.waitExit(), 130);
  EXPECT_TRUE(text.hasLine("skipped  methods (required): interrupted"));
  EXPECT_TRUE(text.hasLine("1 held, "));
}

TEST(ProbeTool, ExplainsWrongUse) {
  for (const auto& [arguments, words] :
       {std::pair(std::vector<std::string>{"probe"}, "TARGET is missing"),
        {{"probe", "a:1", "--level", "6"}, "\"6\" is not a whole number from 1 to 5"},
        {{"probe", ""}, "the target is empty"}}) {
    ToolProcess tool(arguments);
    EXPECT_EQ(tool.waitExit(), 2);
    EXPECT_TRUE(tool.hasError(words)) << tool.errors();
  }
}

TEST(ProbeTool, RefusesAReportFileThatItCannotWrite) {
  ToolProcess tool({"probe", unusedTarget(), "--junit", "/nowhere/report.xml"});
  EXPECT_EQ(tool.waitExit(), 1);
  EXPECT_TRUE(tool.hasError("can't write the report /nowhere/report.xml")) << tool.errors();
}

}  // namespace
}  // namespace probe
