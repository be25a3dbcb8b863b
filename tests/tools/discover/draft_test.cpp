// The module reads from a draft's configuration what the draft means.
#include "tools/discover/Draft.h"

#include <gtest/gtest.h>

#include <random>
#include <set>

#include "module/grpc-gateway/ConfigManager.h"
#include "standin/Host.h"
#include "tests/support/TemporaryFolder.h"

namespace {

using discover::Draft;
using standin::SlotSet;
using tools::SeenKey;
using tools::ValueCase;

constexpr char target[] = "127.0.0.1:50005";

SeenKey seenFloat(const std::string& key) {
  return {.rate = SlotSet::Fast, .key = key, .types = {ValueCase::kSfloat}};
}

class DraftTest : public ::testing::Test {
 protected:
  standin::Host host;
  TemporaryFolder files;
};

// A key of bytes with a meaning to one of the readers. Many keys together cover all such bytes.
std::string randomKey(std::mt19937& random) {
  constexpr std::string_view bytes = " \t\r\v\f;;##''\"\"\\\\ab[]:=\n$`";
  std::string key;
  const auto size = random() % 12;
  while (key.size() < size) key += bytes[random() % bytes.size()];
  return key;
}

TEST_F(DraftTest, ReadsBackAsMeantWithAnyKeys) {
  std::mt19937 random(1);
  for (int round = 0; round < 300; ++round) {
    std::set<std::string> keys;
    while (keys.size() < 20) keys.insert(randomKey(random));
    std::vector<SeenKey> seen{seenFloat("fine")};
    for (const auto& key : keys) seen.push_back(seenFloat(key));
    const Draft draft = discover::draftOf(target, seen, {.namesAll = round % 2 == 0});
    for (const auto& finding : draft.findings) {
      const bool canBeWritten =
          !finding.seen.key.empty() && finding.seen.key.find_first_of("=\n") == std::string::npos;
      EXPECT_EQ(finding.hasEntry(), canBeWritten) << finding.seen.key;
    }
    EXPECT_NO_THROW(discover::checkReadsBack(draft, discover::textOf(draft)));
  }
}

TEST_F(DraftTest, LeavesOutAKeyThatDoesNotFitItsLine) {
  const auto hasEntry = [&](const std::string& key) {
    const Draft draft = discover::draftOf(target, {seenFloat("a"), seenFloat(key)});
    discover::checkReadsBack(draft, discover::textOf(draft));
    return draft.findings.back().hasEntry();
  };
  EXPECT_TRUE(hasEntry(std::string(1003, 'x')));
  EXPECT_FALSE(hasEntry(std::string(1004, 'x')));
  EXPECT_TRUE(hasEntry(std::string(500, '"') + "x"));
  EXPECT_FALSE(hasEntry(std::string(501, '"')));
}

TEST_F(DraftTest, LeavesOutANameThatMakesTheLineTooLong) {
  const Draft draft = discover::draftOf(
      target, {seenFloat(std::string(893, 'x')), seenFloat(std::string(894, 'y'))},
      {.namesAll = true});
  EXPECT_EQ(draft.findings[0].customKey, std::string(99, 'x'));
  EXPECT_EQ(draft.findings[1].customKey, "");
  discover::checkReadsBack(draft, discover::textOf(draft));
}

TEST_F(DraftTest, KeepsRemarksAsComments) {
  Draft draft = discover::draftOf(target, {seenFloat("a")});
  draft.remarks = {"[Engine]", std::string(1000, 'x')};
  EXPECT_NO_THROW(discover::checkReadsBack(draft, discover::textOf(draft)));
}

TEST_F(DraftTest, NamesTheDifferenceIfTheTextReadsBackDifferently) {
  const auto slow = [](SeenKey seen) {
    seen.rate = SlotSet::Slow;
    return seen;
  };
  const Draft draft = discover::draftOf(
      target, {seenFloat("a"), seenFloat("b"), slow(seenFloat("c"))}, {.namesAll = true});
  const std::string text = discover::textOf(draft);
  discover::checkReadsBack(draft, text);
  const auto differenceWith = [&](const std::string& from, const std::string& to) -> std::string {
    std::string changed = text;
    changed.replace(changed.find(from), from.size(), to);
    try {
      discover::checkReadsBack(draft, changed);
    } catch (const std::logic_error& error) {
      const std::string what = error.what();
      return what.substr(what.find('(') + 1, what.find(')') - what.find('(') - 1);
    }
    return "none";
  };
  EXPECT_EQ(differenceWith("[MetersFloat]", "[MetersFlout]"), "it would be refused");
  EXPECT_EQ(differenceWith("[MetersFloat]", "[MetersInt]"), "key \"a\"");
  EXPECT_EQ(differenceWith("Key=b", "Key=d"), "key \"b\"");
  EXPECT_EQ(differenceWith("Type=slow", "Type=fast"), "key \"c\"");
  EXPECT_EQ(differenceWith("CustomKey=b", ""), "key \"b\"");
  EXPECT_EQ(differenceWith("Meter=Key=b", ";"), "key \"b\"");
  EXPECT_EQ(differenceWith("[MetersFloat]\n", "[MetersFloat]\nMeter=Key=z\n"), "key \"z\"");
  EXPECT_EQ(differenceWith("50005", "50006"), "the target differs");
  EXPECT_EQ(differenceWith("SlowMeters=true", "SlowMeters=no"), "the enabled streams differ");
  EXPECT_EQ(differenceWith("[Meters]", "[ Meters]"), "it would be refused");
}

// The module's own reader decides which targets a configuration can hold.
TEST_F(DraftTest, RefusesTargetsThatWouldBeReadDifferently) {
  std::mt19937 random(1);
  std::set<std::string> targets{"", "a", std::string(1016, 'x'), std::string(1017, 'x')};
  while (targets.size() < 2000) targets.insert(randomKey(random));
  int refused = 0;
  for (const std::string& each : targets) {
    const gateway::ConfigManager config(
        files.write("target.conf", "[Meters]\nTarget=" + each + "\n"));
    const bool good = config.valid && config.metersTarget == each;
    EXPECT_EQ(discover::complaintAboutTarget(each).empty(), good) << each;
    if (!good) ++refused;
  }
  EXPECT_GT(refused, 100);
  EXPECT_LT(refused, 1900);
}

}  // namespace
