// Tests each rule with files that break it and files that almost do: cases/RULE.conf must break the
// rule, cases/RULE.near.conf must not, and other files are called RULE.ANYTHING.conf. The whole
// report on a file must match FILE.expected beside it.
//
// A rule about a meter server has FILE.heard beside FILE.conf: what the server has sent, a line
// "RATE TYPE KEY" for each key. "problem RATE TEXT; ADVICE" is a problem of a stream.
//
// cases/repairs/ has whole configurations as beginners write them, in the states of their repair.
// State 1 is the original. Each further state follows the remedies reported for the one before, and
// nothing else. The last state is sound.
//
// To see what a change of the texts does, run this test with KEEP_EXPECTATIONS=1 in the environment
// and read the difference: the test then rewrites the expectations.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "meters.pb.h"
#include "standin/Host.h"
#include "tests/support/FileText.h"
#include "tools/check/Checker.h"
#include "tools/check/Report.h"

namespace {

namespace fs = std::filesystem;

using check::Checked;

std::vector<std::string> caseFiles() {
  std::vector<std::string> files;
  for (const auto& entry : fs::directory_iterator(CASES_FOLDER)) {
    if (entry.path().extension() == ".conf") files.push_back(entry.path().filename());
  }
  std::sort(files.begin(), files.end());
  return files;
}

std::string messageWith(const std::string& key, const std::string& type) {
  sonalith::grpc::Meter meter;
  auto& item = *meter.add_values();
  item.set_key(key);
  sonalith::grpc::AnyValue& value = *item.mutable_value();
  if (type == "float") value.set_sfloat(1);
  if (type == "int") value.set_sint(1);
  if (type == "uint") value.set_suint(1);
  if (type == "string") value.mutable_sstring();
  if (type == "double") value.set_sdouble(1);
  return meter.SerializeAsString();
}

// What the server of a case has sent; nothing if the case has none.
std::optional<check::HeardServer> heardFor(const std::string& file) {
  std::ifstream text(file.substr(0, file.size() - 5) + ".heard");
  if (!text) return std::nullopt;
  check::HeardServer server{.name = "localhost:50005", .seconds = 30};
  for (std::string first, second, rest;
       text >> first >> second && std::getline(text >> std::ws, rest);) {
    const auto rate = [](const std::string& word) {
      return word == "fast" ? standin::SlotSet::Fast : standin::SlotSet::Slow;
    };
    if (first == "problem") {
      const std::size_t end = rest.find("; ");
      server.problems.push_back({{rate(second)}, rest.substr(0, end), rest.substr(end + 2)});
    } else {
      server.sightings.take(rate(first), messageWith(rest, second));
    }
  }
  return server;
}

// Runs in the folder of the cases, where they find their dedicated files.
class Cases : public ::testing::Test {
 protected:
  Cases() { fs::current_path(CASES_FOLDER); }
  ~Cases() override { fs::current_path(before_); }

  static Checked checkCase(const std::string& file, std::set<check::Rule> allowed = {}) {
    const auto server = heardFor(file);
    return check::check({.path = file,
                         .name = file,
                         .allowed = std::move(allowed),
                         .server = server ? &*server : nullptr});
  }

 private:
  const fs::path before_ = fs::current_path();
  const standin::Host host_{{.keepRecords = false}};
};

void expectKept(const std::string& report, const fs::path& kept) {
  const bool keep = std::getenv("KEEP_EXPECTATIONS") != nullptr;
  if (keep) std::ofstream(kept, std::ios::binary) << report;
  EXPECT_EQ(report, textOf(kept)) << fs::absolute(kept);
}

bool breaks(const Checked& checked, const check::RuleText& rule) {
  return std::any_of(checked.diagnostics.begin(), checked.diagnostics.end(),
                     [&](const auto& each) { return &each.rule.text() == &rule; });
}

TEST_F(Cases, MatchTheirExpectations) {
  const auto files = caseFiles();
  EXPECT_GE(files.size(), 2 * check::allRules.size());
  for (const std::string& file : files) {
    expectKept(check::textOf(checkCase(file), false),
               file.substr(0, file.size() - 5) + ".expected");
  }
}

TEST_F(Cases, BreakTheirRuleAndNearMissesDoNot) {
  for (const auto& rule : check::allRules) {
    const std::string name(rule.name);
    ASSERT_TRUE(fs::exists(name + ".conf")) << "no case breaks " << name;
    EXPECT_TRUE(breaks(checkCase(name + ".conf"), rule)) << name;
    ASSERT_TRUE(fs::exists(name + ".near.conf")) << "no case nearly breaks " << name;
    EXPECT_FALSE(breaks(checkCase(name + ".near.conf"), rule)) << name;
  }
}

TEST_F(Cases, AreNamedAfterARule) {
  for (const std::string& file : caseFiles()) {
    EXPECT_TRUE(check::Rule::named(file.substr(0, file.find('.')))) << file;
  }
}

TEST_F(Cases, AreRefusedIfAndOnlyIfThereAreErrors) {
  for (const std::string& file : caseFiles()) {
    const Checked checked = checkCase(file);
    EXPECT_EQ(checked.count(check::Severity::Error) > 0, checked.verdict == check::Verdict::Refused)
        << file;
  }
}

TEST_F(Cases, LoseTheWarningsOfAnAllowedRule) {
  for (const auto& rule : check::allRules) {
    if (!check::canBeAllowed(rule.weight)) continue;
    const std::string file = std::string(rule.name) + ".conf";
    const Checked checked = checkCase(file, {*check::Rule::named(rule.name)});
    for (const auto& each : checked.diagnostics) {
      EXPECT_FALSE(&each.rule.text() == &rule && each.severity == check::Severity::Warning) << file;
    }
  }
}

// ---- Repairs ----------------------------------------------------------------------------------

class Repairs : public Cases {
 protected:
  // Checks a state and compares the report, and the slots if the state is sound.
  static Checked checkState(const fs::path& state) {
    fs::current_path(state);
    const Checked checked =
        check::check({.path = "gateway.conf", .name = "gateway.conf", .withSlots = true});
    expectKept(
        check::textOf(checked, false) + (isSound(checked) ? check::tableOf(checked.slots) : ""),
        "gateway.expected");
    return checked;
  }

  static bool isSound(const Checked& checked) {
    return checked.verdict == check::Verdict::Accepted &&
           checked.count(check::Severity::Warning) == 0;
  }
};

TEST_F(Repairs, SucceedByFollowingTheRemedies) {
  std::size_t configurations = 0;
  for (const auto& configuration : fs::directory_iterator(fs::path(CASES_FOLDER) / "repairs")) {
    ++configurations;
    int state = 1;
    EXPECT_GE(checkState(configuration.path() / "1").diagnostics.size(), 12u);
    while (fs::exists(configuration.path() / std::to_string(state + 1))) {
      EXPECT_FALSE(isSound(checkState(configuration.path() / std::to_string(state++))));
    }
    EXPECT_TRUE(isSound(checkState(configuration.path() / std::to_string(state))))
        << configuration.path();
  }
  EXPECT_GE(configurations, 3u);
}

TEST(Rules, HaveDistinctNamesAndTexts) {
  EXPECT_GE(check::allRules.size(), 50u);
  for (const auto& rule : check::allRules) {
    EXPECT_EQ(&check::Rule::named(rule.name)->text(), &rule) << rule.name;
    EXPECT_FALSE(rule.summary.empty() || rule.explanation.empty()) << rule.name;
  }
  EXPECT_FALSE(check::Rule::named("no-such-rule"));
}

}  // namespace
