// Reports of made-up results.
#include <fstream>
#include <nlohmann/json.hpp>

#include "tests/support/TemporaryFolder.h"
#include "tests/tools/probe/ProbeTest.h"

namespace probe {
namespace {

Outcome outcomeOf(std::vector<Result> results) {
  return {.target = "server",
          .engine = "",
          .level = highestLevel,
          .wasInterrupted = false,
          .results = std::move(results)};
}

TEST(ProbeOutcome, DependsOnRequiredChecksAlone) {
  const auto recommended = outcomeOf({{CheckId::Rate, Verdict::Failed, "", 0}});
  EXPECT_EQ(recommended.exitCode(), 0);
  EXPECT_EQ(recommended.reached(), 5);
  const auto required = outcomeOf({{CheckId::Utf8, Verdict::Failed, "", 0}});
  EXPECT_EQ(required.exitCode(), 1);
  EXPECT_EQ(required.reached(), 2);
}

TEST(ProbeOutcome, DoesNotReachALevelOfWhichARequiredCheckWasSkipped) {
  auto outcome = outcomeOf({{CheckId::EnginePings, Verdict::Skipped, "", 0}});
  EXPECT_EQ(outcome.reached(), 5) << "no engine was to be probed";
  outcome.engine = "server";
  EXPECT_EQ(outcome.reached(), 2);
  EXPECT_EQ(outcome.exitCode(), 0);
  EXPECT_EQ(outcomeOf({{CheckId::Pings, Verdict::Skipped, "", 0}}).reached(), 2);
  EXPECT_EQ(outcomeOf({{CheckId::SteadyPings, Verdict::Skipped, "", 0}}).reached(), 5);
}

TEST(ProbeOutcome, TellsUnreachableServersFromUnfitOnes) {
  for (const CheckId check : {CheckId::Connects, CheckId::EngineConnects}) {
    auto outcome = outcomeOf({{check, Verdict::Failed, "", 0}});
    outcome.engine = "server";
    EXPECT_EQ(outcome.exitCode(), 2);
    EXPECT_EQ(outcome.reached(), 0);
  }
}

// Everything that XML and JSON have to escape, and much that they can't hold at all.
std::string hostileText() {
  std::string text = "]]> \xef\xbf\xbe \xef\xbf\xbf \xed\xa0\x80 \xf4\x90\x80\x80";
  for (int byte = 0; byte < 256; ++byte) text += static_cast<char>(byte);
  return text;
}

Outcome hostileOutcome() {
  return outcomeOf({{CheckId::Connects, Verdict::Held, hostileText(), 0.5},
                    {CheckId::Utf8, Verdict::Failed, hostileText(), 0},
                    {CheckId::Rate, Verdict::Failed, hostileText(), 0},
                    {CheckId::EngineMethod, Verdict::Skipped, hostileText(), 0}});
}

TEST(ProbeReport, IsValidXmlForAnyBytes) {
  const TemporaryFolder folder;
  const std::string path = folder.path("report.xml");
  std::ofstream(path) << junitOf(hostileOutcome());
  ToolProcess parser({"-c",
                      "import sys, xml.etree.ElementTree as x\n"
                      "s = x.parse(sys.argv[1]).getroot()\n"
                      "print(s.tag, s.get('tests'), s.get('failures'), s.get('skipped'),"
                      " [c.get('name') for c in s if c.find('failure') is not None])",
                      path},
                     "/usr/bin/python3");
  EXPECT_EQ(parser.waitExit(), 0) << parser.errors();
  EXPECT_EQ(parser.lines(), std::vector<std::string>{"testsuite 4 1 1 ['utf8']"});
}

TEST(ProbeReport, IsValidJsonForAnyBytes) {
  const auto document = nlohmann::json::parse(jsonOf(hostileOutcome()));
  EXPECT_EQ(document["reached"], 2);
  EXPECT_EQ(document["checks"][1]["verdict"], "failed");
  EXPECT_EQ(document["checks"][1]["kind"], "required");
  EXPECT_EQ(document["checks"][3]["name"], "engine-method");
}

TEST(ProbeReport, ShowsNoControlCharacters) {
  const std::string text = textOf({CheckId::Connects, Verdict::Held, hostileText(), 0}, 80);
  EXPECT_EQ(text.find('\x1b'), text.npos);
  EXPECT_NE(text.find("\\x1b"), text.npos);
}

}  // namespace
}  // namespace probe
