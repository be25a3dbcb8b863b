// Checks of texts that stand in for files.
#include "tools/check/Overlay.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <string>

#include "standin/Host.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/tools/check/ConfigGenerator.h"
#include "tests/tools/check/RewrittenFile.h"
#include "tools/check/Checker.h"
#include "tools/check/Report.h"

namespace {

using check::Checked;
using check::Overlay;
using check::Request;
using check::Verdict;

// The whole report, and what it leaves out.
std::string reportOf(const Checked& checked) {
  std::string report = check::textOf(checked, false) + check::tableOf(checked.slots);
  for (const std::string& file : checked.files) report += file + "\n";
  for (const auto& entry : checked.entries) {
    report += std::to_string(entry.line) + " " + std::to_string(entry.position) + "\n";
  }
  return report;
}

class OverlaidCheck : public ::testing::Test {
 protected:
  static Checked checkMain(const std::string& path, const Overlay& overlay = {}) {
    return check::check({.path = path,
                         .name = "main",
                         .withSlots = true,
                         .withRefusedSlots = true,
                         .overlay = overlay});
  }

  RewrittenFile main;
  RewrittenFile outer;
  RewrittenFile inner;
  TemporaryFolder folder;
  standin::Host host{{.keepRecords = false}};
};

TEST_F(OverlaidCheck, IsThatOfFilesWithTheSameTexts) {
  std::size_t accepted = 0;
  std::size_t nested = 0;
  for (std::uint32_t seed = 0; seed < 2000; ++seed) {
    ConfigGenerator generator(seed);
    const unsigned badness = seed % 2 == 0 ? 0 : 5;
    const std::string innerText =
        seed % 7 == 0 ? generator.soup() : generator.configuration(badness, {});
    const std::string outerText = generator.configuration(badness, {inner.path()});
    const std::string mainText =
        seed % 5 == 0 ? generator.soup() : generator.configuration(badness, {outer.path()});
    main.write(mainText);
    outer.write(outerText);
    inner.write(innerText);
    const Checked expected = checkMain(main.path());
    accepted += expected.verdict == Verdict::Accepted ? 1 : 0;
    nested += expected.files.size() > 2 ? 1 : 0;

    Overlay overlay;
    // Each part of the overlay is tried with and without the others.
    if (seed % 3 != 0) overlay.set(main.path(), mainText);
    if (seed % 3 != 1) overlay.set(outer.path(), outerText);
    if (seed % 4 != 1) overlay.set(inner.path(), innerText);
    if (seed % 3 != 0) main.write("[MetersInt]\nMeter=Key=old\n");
    if (seed % 3 != 1) outer.write("[Nowhere]\n");
    if (seed % 4 != 1) inner.write("old");
    const Checked overlaid = checkMain(main.path(), overlay);
    ASSERT_EQ(reportOf(overlaid), reportOf(expected)) << "seed " << seed << "\n" << mainText;
    ASSERT_EQ(overlaid.verdict, expected.verdict) << "seed " << seed;
    ASSERT_EQ(overlaid.slots, expected.slots) << "seed " << seed;
  }
  EXPECT_GT(accepted, 200u);
  EXPECT_GT(nested, 200u);
}

TEST_F(OverlaidCheck, KnowsAFileByAllItsNames) {
  const std::string path = folder.write("a.conf", "old");
  const std::string link = folder.path("link.conf");
  std::filesystem::create_symlink(path, link);
  Overlay overlay;
  overlay.set(path, "[Meters]\nTarget=localhost:50005\n");
  EXPECT_EQ(overlay.placeOf(link), overlay.placeOf(path));
  EXPECT_EQ(overlay.placeOf(folder.path(".") + "/a.conf"), overlay.placeOf(path));
  EXPECT_EQ(checkMain(link, overlay).verdict, Verdict::Accepted);
}

TEST_F(OverlaidCheck, NeedsNoFile) {
  const std::string path = folder.path("new.conf");
  Overlay overlay;
  overlay.set(path, "[Meters]\nTarget=localhost:50005\n");
  EXPECT_EQ(checkMain(path, overlay).verdict, Verdict::Accepted);
  overlay.set(path, "[Metres]\nTarget=localhost:50005\n");
  EXPECT_EQ(checkMain(path, overlay).verdict, Verdict::Refused);
}

TEST_F(OverlaidCheck, FindsATextThatLeadsBack) {
  const std::string path = folder.write("a.conf", "");
  Overlay overlay;
  overlay.set(path, "[Meters]\nTarget=localhost:50005\n[ParseIfExist:" + path + "]\nFile=" + path);
  const Checked checked = checkMain(path, overlay);
  EXPECT_EQ(checked.verdict, Verdict::Refused);
  EXPECT_FALSE(checked.moduleWasAsked);
}

}  // namespace
