// The checker judges each configuration in the documents as the documents do.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "standin/Host.h"
#include "tests/support/FileText.h"
#include "tests/tools/check/RewrittenFile.h"
#include "tools/check/Checker.h"
#include "tools/check/Report.h"

namespace {

namespace fs = std::filesystem;

using check::Checked;
using check::Severity;
using check::Verdict;

const fs::path root = SOURCE_FOLDER;

std::vector<std::string> snippetsOf(const std::string& markdown) {
  constexpr std::string_view begin = "\n```ini\n";
  std::vector<std::string> snippets;
  for (std::size_t at = markdown.find(begin); at != markdown.npos; at = markdown.find(begin, at)) {
    at += begin.size();
    const std::size_t end = markdown.find("```\n", at);
    snippets.push_back(markdown.substr(at, end - at));
  }
  return snippets;
}

class Manual : public ::testing::Test {
 protected:
  // The dedicated files that the snippets name need not exist on this machine.
  Checked checkText(const std::string& text) {
    return checkFile(file_.write(text), {"missing-condition"});
  }

  static Checked checkFile(const std::string& path, std::set<check::Rule> allowed = {}) {
    return check::check({.path = path, .name = path, .allowed = std::move(allowed)});
  }

  static void expectSound(const Checked& checked) {
    EXPECT_TRUE(checked.verdict == Verdict::Accepted && checked.count(Severity::Warning) == 0)
        << check::textOf(checked, false);
  }

 private:
  const standin::Host host_{{.keepRecords = false}};
  RewrittenFile file_;
};

// A snippet is sound unless its first line names the rule that it breaks.
TEST_F(Manual, ShowsConfigurationsThatWorkAsDescribed) {
  constexpr std::string_view mark = "; trap: ";
  const auto snippets = snippetsOf(textOf(root / "docs/configuration.md"));
  EXPECT_GE(snippets.size(), 5u);
  for (const std::string& snippet : snippets) {
    const Checked checked = checkText(snippet);
    if (!snippet.starts_with(mark)) {
      expectSound(checked);
      continue;
    }
    const std::string name = snippet.substr(mark.size(), snippet.find('\n') - mark.size());
    const auto rule = check::Rule::named(name);
    ASSERT_TRUE(rule) << name;
    EXPECT_TRUE(std::any_of(checked.diagnostics.begin(), checked.diagnostics.end(),
                            [&](const auto& each) { return each.rule == rule; }))
        << snippet;
  }
}

TEST_F(Manual, OtherDocumentsShowSoundConfigurations) {
  for (const char* folder : {".", "docs", "examples/servers"}) {
    for (const auto& entry : fs::directory_iterator(root / folder)) {
      const fs::path& path = entry.path();
      if (path.extension() != ".md" || path.filename() == "configuration.md") continue;
      for (const std::string& snippet : snippetsOf(textOf(path))) expectSound(checkText(snippet));
    }
  }
}

TEST_F(Manual, HasSoundExamples) {
  std::size_t examples = 0;
  for (const auto& entry : fs::directory_iterator(root / "examples")) {
    if (entry.path().extension() != ".conf") continue;
    expectSound(checkFile(entry.path()));
    ++examples;
  }
  EXPECT_GE(examples, 1u);
}

}  // namespace
