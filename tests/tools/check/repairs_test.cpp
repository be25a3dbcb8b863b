// Repairs of thousands of generated files, and of a few special ones.
#include "tools/check/Repairs.h"

#include <gtest/gtest.h>
#include <linux/posix_acl.h>
#include <linux/posix_acl_xattr.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>

#include "module/grpc-gateway/ConfigManager.h"
#include "standin/Host.h"
#include "tests/support/FileText.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/tools/check/ConfigGenerator.h"
#include "tests/tools/check/RewrittenFile.h"
#include "tools/common/ConfiguredSlots.h"

namespace {

using check::Boldness;
using check::Checked;
using check::Repaired;
using check::Severity;

class Repairs : public ::testing::Test {
 protected:
  static Repaired repairFile(const std::string& path, Boldness boldness) {
    return check::repair({.path = path, .name = path}, boldness);
  }

  Repaired repairText(const std::string& text, Boldness boldness = Boldness::Safe) {
    return repairFile(file.write(text), boldness);
  }

  static bool hasRepair(const Checked& checked, Boldness boldness) {
    return std::any_of(checked.diagnostics.begin(), checked.diagnostics.end(),
                       [&](const auto& each) {
                         return each.repair && each.readAt.empty() &&
                                (each.repair->isSafe || boldness == Boldness::Likely);
                       });
  }

  // Expects that the module accepts the repaired file and reads it as it read the original.
  void expectSameMeaning(const std::string& before, const std::string& after, std::uint32_t seed) {
    const gateway::ConfigManager old(file.write(before));
    const gateway::ConfigManager now(other.write(after));
    ASSERT_TRUE(now.valid) << "seed " << seed;
    EXPECT_EQ(tools::slotsOf(now), tools::slotsOf(old)) << "seed " << seed;
    EXPECT_EQ(now.metersTarget, old.metersTarget) << "seed " << seed;
    EXPECT_EQ(now.engineTarget, old.engineTarget) << "seed " << seed;
    EXPECT_EQ(now.enableFastMeters, old.enableFastMeters) << "seed " << seed;
    EXPECT_EQ(now.enableSlowMeters, old.enableSlowMeters) << "seed " << seed;
  }

  RewrittenFile file;
  RewrittenFile other;
  RewrittenFile dedicated;
  standin::Host host{{.keepRecords = false}};
};

TEST_F(Repairs, AreCompleteAndKeepTheMeaning) {
  constexpr std::uint32_t files = 6000;
  std::size_t changed = 0;
  std::size_t accepted = 0;
  std::size_t notBetter = 0;
  for (std::uint32_t seed = 0; seed < files; ++seed) {
    ConfigGenerator generator(seed);
    const unsigned badness = seed % 3 == 0 ? 25 : static_cast<unsigned>(seed % 3);
    dedicated.write(generator.configuration(badness, {}));
    const std::string text = generator.mistyped(
        seed % 5 == 0 ? generator.soup() : generator.configuration(badness, {dedicated.path()}));
    const Repaired repaired = repairText(text);
    ASSERT_EQ(repaired.before, text) << "seed " << seed;
    if (repaired.after == text) {
      notBetter += hasRepair(repaired.checked, Boldness::Safe) ? 1 : 0;
      continue;
    }
    ++changed;
    EXPECT_FALSE(hasRepair(repaired.checked, Boldness::Safe)) << "seed " << seed << "\n" << text;
    EXPECT_EQ(repairText(repaired.after).after, repaired.after) << "seed " << seed;
    if (!gateway::ConfigManager(other.write(text)).valid) continue;
    ++accepted;
    expectSameMeaning(text, repaired.after, seed);
  }
  EXPECT_GT(changed, files / 20);
  EXPECT_GT(accepted, files / 100);
  EXPECT_LT(notBetter, files / 20);
}

TEST_F(Repairs, ThatAreOnlyLikelyAddNoErrors) {
  std::size_t changed = 0;
  for (std::uint32_t seed = 0; seed < 3000; ++seed) {
    ConfigGenerator generator(seed);
    const std::string text = generator.mistyped(generator.configuration(5, {}));
    const Repaired repaired = repairText(text, Boldness::Likely);
    if (repaired.after == text) continue;
    ++changed;
    const Checked before = check::check({.path = file.write(text), .name = "before"});
    const Checked after = check::check({.path = file.write(repaired.after), .name = "after"});
    EXPECT_LE(after.count(Severity::Error), before.count(Severity::Error)) << "seed " << seed;
    EXPECT_EQ(repairText(repaired.after, Boldness::Likely).after, repaired.after)
        << "seed " << seed << "\n"
        << repaired.after;
  }
  EXPECT_GT(changed, 300u);
}

TEST_F(Repairs, KeepCommentsLineEndsAndTheByteOrderMark) {
  const std::string text =
      "\xEF\xBB\xBF; a comment\r\n[Meters]\r\nTarget=localhost:50005 ; main\r\n[ MetersInt]\r\n"
      "Meter: key=a Type=SLOW DefaultValue=1, ; first\r\n\r\n# end";
  EXPECT_EQ(
      repairText(text).after,
      "\xEF\xBB\xBF; a comment\r\n[Meters]\r\nTarget=localhost:50005 ; main\r\n[MetersInt]\r\n"
      "Meter=Key=a Type=slow DefaultValue=1 ; first\r\n\r\n# end");
}

TEST_F(Repairs, SkipLikelyOnesUnlessRequested) {
  const std::string text = "[Metres]\nTarget=http://localhost:50005\nEnableSlowMeters=yes\n";
  EXPECT_EQ(repairText(text).after, text);
  EXPECT_EQ(repairText(text, Boldness::Likely).after,
            "[Meters]\nTarget=localhost:50005\nEnableSlowMeters=true\n");
}

// The corrected entry would repeat a key, so the check of the file would be no better.
TEST_F(Repairs, AreNotMadeIfTheResultIsNoBetter) {
  const std::string text =
      "[Meters]\nTarget=localhost:50005\n[MetersInt]\nMeter=Key=a\nMeter=key=a\n";
  EXPECT_EQ(repairText(text).after, text);
}

TEST_F(Repairs, OfDedicatedFilesAreNotMade) {
  dedicated.write("[MetersInt]\nMeter=key=a\n");
  // The main file has the same text at the same place.
  const std::string text =
      "[Meters]\n; The key\nTarget=localhost:50005\n[ParseIfExist:" + dedicated.path() +
      "]\nFile=" + dedicated.path() + "\n";
  const Checked checked = check::check({.path = file.write(text), .name = "main"});
  ASSERT_TRUE(std::any_of(checked.diagnostics.begin(), checked.diagnostics.end(),
                          [](const auto& each) { return each.repair.has_value(); }));
  EXPECT_EQ(check::repaired(text, checked.diagnostics, Boldness::Safe), text);
  EXPECT_EQ(textOf(dedicated.path()), "[MetersInt]\nMeter=key=a\n");
}

TEST(UnifiedDiff, ShowsTheChangedLinesInTheirContext) {
  EXPECT_EQ(check::unifiedDiff("a", "1\n2\n3\n4\n5\n6\n7\n8\n9", "1\n2\n3\n4\nx\n6\n7\n8\n9"),
            "--- a\n+++ a\n@@ -2,7 +2,7 @@\n 2\n 3\n 4\n-5\n+x\n 6\n 7\n 8\n");
  EXPECT_EQ(check::unifiedDiff("a", "1\n2", "x\ny"),
            "--- a\n+++ a\n@@ -1,2 +1,2 @@\n-1\n-2\n\\ No newline at end of file\n+x\n+y\n"
            "\\ No newline at end of file\n");
  EXPECT_EQ(check::unifiedDiff("a", "same\n", "same\n"), "");
}

TEST(ReplaceFile, KeepsTheModeAndTheLink) {
  const TemporaryFolder folder;
  const std::string path = folder.write("file", "before");
  const std::string link = folder.path("link");
  std::filesystem::create_symlink(path, link);
  ASSERT_EQ(chmod(path.c_str(), 0640), 0);
  check::replaceFile(link, "before", "after");
  struct stat status {};
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777u, 0640u);
  EXPECT_TRUE(std::filesystem::is_symlink(link));
  EXPECT_EQ(textOf(path), "after");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.path("")), {}), 2);
}

// An access control list that also gives a user rights, as the kernel stores it.
std::string listWithUser(std::uint32_t user) {
  constexpr std::uint32_t none = ACL_UNDEFINED_ID;
  constexpr std::uint16_t readOnly = 4;
  constexpr std::uint16_t readWrite = 6;
  const posix_acl_xattr_header header{POSIX_ACL_XATTR_VERSION};
  const std::array<posix_acl_xattr_entry, 5> entries = {{{ACL_USER_OBJ, readWrite, none},
                                                         {ACL_USER, readWrite, user},
                                                         {ACL_GROUP_OBJ, readOnly, none},
                                                         {ACL_MASK, readWrite, none},
                                                         {ACL_OTHER, 0, none}}};
  std::string list(sizeof header + sizeof entries, '\0');
  std::memcpy(list.data(), &header, sizeof header);
  std::memcpy(list.data() + sizeof header, entries.data(), sizeof entries);
  return list;
}

// Whether the filesystem could set the attribute.
bool setAttribute(const std::string& path, const char* name, const std::string& value) {
  return setxattr(path.c_str(), name, value.data(), value.size(), 0) == 0;
}

std::string attributeOf(const std::string& path, const char* name) {
  std::string value(1000, '\0');
  const ssize_t size = getxattr(path.c_str(), name, value.data(), value.size());
  value.resize(static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
  return value;
}

mode_t modeOf(const std::string& path) {
  struct stat status {};
  stat(path.c_str(), &status);
  return status.st_mode & 07777;
}

constexpr const char* accessList = "system.posix_acl_access";

// Some filesystems have no such attributes. Then there is nothing to keep.
TEST(ReplaceFile, KeepsExtendedAttributes) {
  const TemporaryFolder folder;
  const std::string path = folder.write("file", "before");
  const bool isSet = setAttribute(path, "user.origin", "studio 3");
  check::replaceFile(path, "before", "after");
  EXPECT_EQ(textOf(path), "after");
  EXPECT_EQ(attributeOf(path, "user.origin"), isSet ? "studio 3" : "");
}

TEST(ReplaceFile, KeepsTheAccessControlList) {
  const TemporaryFolder folder;
  const std::string path = folder.write("file", "before");
  const bool isSet = setAttribute(path, accessList, listWithUser(12345));
  const mode_t mode = modeOf(path);
  check::replaceFile(path, "before", "after");
  EXPECT_EQ(textOf(path), "after");
  EXPECT_EQ(attributeOf(path, accessList), isSet ? listWithUser(12345) : "");
  EXPECT_EQ(modeOf(path), mode);
}

// The folder's list would give a user rights to the new file.
TEST(ReplaceFile, AddsNoRightsOfTheFolder) {
  const TemporaryFolder folder;
  const std::string path = folder.write("file", "before");
  ASSERT_EQ(chmod(path.c_str(), 0640), 0);
  setAttribute(folder.path(""), "system.posix_acl_default", listWithUser(12345));
  check::replaceFile(path, "before", "after");
  EXPECT_EQ(attributeOf(path, accessList), "");
  EXPECT_EQ(modeOf(path), 0640u);
}

TEST(ReplaceFile, LeavesAFileAloneThatSomebodyHasChanged) {
  const TemporaryFolder folder;
  const std::string path = folder.write("file", "edited");
  EXPECT_THROW(check::replaceFile(path, "before", "after"), std::runtime_error);
  EXPECT_EQ(textOf(path), "edited");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.path("")), {}), 1);
}

TEST(ReplaceFile, LeavesAFileAloneThatHasASecondName) {
  const TemporaryFolder folder;
  const std::string path = folder.write("file", "before");
  std::filesystem::create_hard_link(path, folder.path("second"));
  EXPECT_THROW(check::replaceFile(path, "before", "after"), std::runtime_error);
  EXPECT_EQ(textOf(folder.path("second")), "before");
}

TEST(ReplaceFile, ThrowsIfItCannotReplace) {
  EXPECT_THROW(check::replaceFile("/no/such/file", "", ""), std::runtime_error);
  EXPECT_THROW(check::replaceFile("/proc/version", textOf("/proc/version"), ""),
               std::runtime_error);
}

}  // namespace
