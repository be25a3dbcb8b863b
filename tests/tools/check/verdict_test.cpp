// The checker reports an error if and only if the module refuses the configuration.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "module/grpc-gateway/ConfigManager.h"
#include "standin/Host.h"
#include "tests/tools/check/ConfigGenerator.h"
#include "tests/tools/check/RewrittenFile.h"
#include "tools/check/Checker.h"
#include "tools/check/Report.h"

namespace {

using check::Checked;
using check::Severity;
using check::Verdict;

class VerdictTest : public ::testing::Test {
 protected:
  Checked checkPath(const std::string& path) { return check::check({.path = path, .name = path}); }

  // Writes a main file and two dedicated files. The main file may name both, and the first may name
  // the second.
  std::string writeConfiguration(std::uint32_t seed) {
    ConfigGenerator generator(seed);
    const unsigned badness = seed % 3 == 0 ? 25 : static_cast<unsigned>(seed % 3);
    second.write(generator.configuration(badness, {}));
    first.write(generator.configuration(badness, {second.path()}));
    return main.write(
        generator.configuration(badness, {first.path(), second.path(), "/no/file", "/tmp"}));
  }

  RewrittenFile main;
  RewrittenFile first;
  RewrittenFile second;
  standin::Host host{{.keepRecords = false}};
};

TEST_F(VerdictTest, ErrorsMatchTheModulesRefusals) {
  constexpr std::uint32_t files = 24000;
  std::size_t accepted = 0;
  for (std::uint32_t seed = 0; seed < files; ++seed) {
    const std::string path = writeConfiguration(seed);
    const Checked checked = checkPath(path);
    const bool valid = gateway::ConfigManager(path).valid;
    accepted += valid ? 1 : 0;
    ASSERT_TRUE(checked.moduleWasAsked) << "seed " << seed;
    ASSERT_EQ(checked.verdict == Verdict::Accepted, valid) << "seed " << seed;
    ASSERT_EQ(checked.count(Severity::Error) == 0, valid) << "seed " << seed << "\n"
                                                          << check::textOf(checked, false);
  }
  EXPECT_GT(accepted, files / 5);
  EXPECT_LT(accepted, files - files / 5);
}

TEST_F(VerdictTest, ErrorsMatchTheVerdictForAnyBytes) {
  for (std::uint32_t seed = 0; seed < 4000; ++seed) {
    ConfigGenerator generator(seed);
    const std::string path = main.write(generator.soup());
    const Checked checked = checkPath(path);
    ASSERT_EQ(checked.count(Severity::Error) == 0, checked.verdict == Verdict::Accepted)
        << "seed " << seed << "\n"
        << check::textOf(checked, false);
  }
}

TEST_F(VerdictTest, DiagnosticsFollowTheOrderOfTheLines) {
  for (std::uint32_t seed = 0; seed < 500; ++seed) {
    std::size_t last = 0;
    const std::string path = writeConfiguration(seed);
    for (const auto& each : checkPath(path).diagnostics) {
      if (each.file != path || each.line == 0) continue;
      EXPECT_GE(each.line, last) << "seed " << seed;
      last = each.line;
    }
  }
}

}  // namespace
