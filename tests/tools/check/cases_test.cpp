// Each rule, by files that break it and files that nearly do: cases/RULE.conf has to break the
// rule, cases/RULE.near.conf must not, and further files are called RULE.ANYTHING.conf. All that is
// told of a file is kept beside it, in FILE.expected, and compared whole.
//
// To see what a change of the texts does, run this with KEEP_EXPECTATIONS=1 in the environment,
// which writes the files anew, and read the difference.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "standin/Host.h"
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

std::string contentOf(const fs::path& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

// Cases name their dedicated files from here.
class Cases : public ::testing::Test {
 protected:
  Cases() { fs::current_path(CASES_FOLDER); }
  ~Cases() override { fs::current_path(before_); }

  static Checked checkCase(const std::string& file) {
    return check::check({.path = file, .name = file});
  }

 private:
  const fs::path before_ = fs::current_path();
  const standin::Host host_{{.keepRecords = false}};
};

bool breaks(const Checked& checked, check::Rule rule) {
  return std::any_of(checked.diagnostics.begin(), checked.diagnostics.end(),
                     [&](const auto& each) { return each.rule == rule; });
}

TEST_F(Cases, AreToldAsKept) {
  const bool keep = std::getenv("KEEP_EXPECTATIONS") != nullptr;
  const auto files = caseFiles();
  EXPECT_GE(files.size(), 2 * check::allRules().size());
  for (const std::string& file : files) {
    const fs::path kept = file.substr(0, file.size() - 5) + ".expected";
    const std::string told = check::textOf(checkCase(file), false);
    if (keep) std::ofstream(kept, std::ios::binary) << told;
    EXPECT_EQ(told, contentOf(kept)) << file;
  }
}

TEST_F(Cases, BreakTheirRule) {
  for (const auto& rule : check::allRules()) {
    const std::string name(rule.name);
    ASSERT_TRUE(fs::exists(name + ".conf")) << "no case breaks " << name;
    EXPECT_TRUE(breaks(checkCase(name + ".conf"), rule.rule)) << name;
    ASSERT_TRUE(fs::exists(name + ".near.conf")) << "no case nearly breaks " << name;
    EXPECT_FALSE(breaks(checkCase(name + ".near.conf"), rule.rule)) << name;
  }
}

TEST_F(Cases, BelongToARule) {
  for (const std::string& file : caseFiles()) {
    EXPECT_NE(check::ruleOf(file.substr(0, file.find('.'))), nullptr) << file;
  }
}

TEST_F(Cases, AreRefusedForErrorsAlone) {
  for (const std::string& file : caseFiles()) {
    const Checked checked = checkCase(file);
    EXPECT_EQ(checked.count(check::Severity::Error) > 0, checked.verdict == check::Verdict::Refused)
        << file;
  }
}

TEST_F(Cases, LoseTheWarningsOfARuleThatIsAllowed) {
  for (const auto& rule : check::allRules()) {
    if (!check::canBeAllowed(rule.weight)) continue;
    const std::string file = std::string(rule.name) + ".conf";
    const Checked checked = check::check({.path = file, .name = file, .allowed = {rule.rule}});
    for (const auto& each : checked.diagnostics) {
      EXPECT_FALSE(each.rule == rule.rule && each.severity == check::Severity::Warning) << file;
    }
  }
}

TEST(Rules, StandInTheOrderOfTheirNumbers) {
  for (const auto& rule : check::allRules()) {
    EXPECT_EQ(check::textOf(rule.rule).name, rule.name);
    EXPECT_EQ(check::ruleOf(rule.name), &rule);
  }
}

}  // namespace
