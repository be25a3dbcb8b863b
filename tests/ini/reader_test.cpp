// How a pass treats its file, and how passes nest.

#include <gtest/gtest.h>
#include <ini.h>
#include <sys/resource.h>

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "ini/conformance.h"
#include "tests/ini/descriptors.h"
#include "tests/ini/printing.h"

namespace ini::conformance {
namespace {

const Reading cannotBeOpened{{}, -1};
const Reading empty{{}, 0};

TEST(IniFile, MissingFileGivesMinusOne) {
  EXPECT_EQ(readPath(ini_parse, "/no/such/file"), cannotBeOpened);
}

TEST(IniFile, EmptyPathGivesMinusOne) {
  EXPECT_EQ(readPath(ini_parse, ""), cannotBeOpened);
}

TEST(IniFile, PathBelowAFileGivesMinusOne) {
  const TemporaryFile file("a=1\n");
  EXPECT_EQ(readPath(ini_parse, file.path() + "/below"), cannotBeOpened);
}

TEST(IniFile, DirectoryReadsAsAnEmptyFile) {
  EXPECT_EQ(readPath(ini_parse, std::filesystem::temp_directory_path()), empty);
}

TEST(IniFile, EmptyDeviceReadsAsAnEmptyFile) {
  EXPECT_EQ(readPath(ini_parse, "/dev/null"), empty);
}

TEST(IniFile, IsClosedAfterGoodAndBadPasses) {
  const auto before = openDescriptors();
  readBytes(ini_parse, "a=1\n");
  readBytes(ini_parse, "bare\n");
  readPath(ini_parse, "/no/such/file");
  readPath(ini_parse, std::filesystem::temp_directory_path());
  EXPECT_EQ(openDescriptors(), before);
}

// The handler of the table returns only 0 and 1.
TEST(IniHandler, AnyNonZeroResultAcceptsTheLine) {
  const auto minusOne = [](void*, const char*, const char*, const char*) { return -1; };
  EXPECT_EQ(ini_parse(TemporaryFile("a=1\n b\n").path().c_str(), minusOne, nullptr), 0);
}

// At a pair named "read", reads the file that its value names, in a nested pass.
int readInPlace(void* user, const char* section, const char* name, const char* value) {
  recordPair(user, section, name, value);
  return std::string_view(name) != "read" || ini_parse(value, readInPlace, user) == 0;
}

Reading readNested(const std::string& path) {
  Reading reading{{}, 0};
  reading.result = ini_parse(path.c_str(), readInPlace, &reading.pairs);
  return reading;
}

TEST(IniNesting, TheOuterPassResumesInItsOwnSectionAndPendingName) {
  const TemporaryFile inner("x=1\n[inner]\ny=2\n");
  const TemporaryFile outer("[outer]\nread=" + inner.path() + "\n " + inner.path() + "\nb=3\n c\n");
  const Reading expected{{{"outer", "read", inner.path()},
                          {"", "x", "1"},
                          {"inner", "y", "2"},
                          {"outer", "read", inner.path()},
                          {"", "x", "1"},
                          {"inner", "y", "2"},
                          {"outer", "b", "3"},
                          {"outer", "b", "c"}},
                         0};
  EXPECT_EQ(readNested(outer.path()), expected);
}

TEST(IniNesting, EachPassCountsItsOwnLines) {
  const TemporaryFile inner("x=1\n\n\n\nbare\n");
  const TemporaryFile outer("\nread=" + inner.path() + "\nb=2\n");
  const Reading expected{{{"", "read", inner.path()}, {"", "x", "1"}, {"", "b", "2"}}, 2};
  EXPECT_EQ(readNested(outer.path()), expected);
}

// Limits the process to a few more descriptors during its lifetime.
class FewDescriptors {
 public:
  FewDescriptors() {
    getrlimit(RLIMIT_NOFILE, &before_);
    const rlimit few{64, before_.rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
  }
  ~FewDescriptors() { setrlimit(RLIMIT_NOFILE, &before_); }

  FewDescriptors(const FewDescriptors&) = delete;
  FewDescriptors& operator=(const FewDescriptors&) = delete;

 private:
  rlimit before_{};
};

int readItself(void* path, const char*, const char*, const char*) {
  return ini_parse(static_cast<const char*>(path), readItself, path) == 0;
}

TEST(IniNesting, AFileThatReadsItselfEndsWhenItCannotBeReopened) {
  const TemporaryFile file("\na=1\n");
  std::string path = file.path();
  const auto before = openDescriptors();
  {
    const FewDescriptors few;
    EXPECT_EQ(ini_parse(path.c_str(), readItself, path.data()), 2);
  }
  EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
}  // namespace ini::conformance
