// Dedicated files: when they are read, what their lines do, and what is logged.
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <vector>

#include "tests/module/grpc-gateway/config/config_fixture.h"

namespace gateway {
namespace {

using enum MeterEntryType;

Line notThere(const std::string& path) {
  return {1, "file '" + path + "' not exist, so not parsing dedicated file"};
}

Line reading(const std::string& path) {
  return {1, "subparsing file '" + path + "' as requested"};
}

Line done(int result) {
  return {1, "ret from handle if exist: " + std::to_string(result)};
}

std::string guarded(const std::string& condition, const std::string& lines) {
  return "[ParseIfExist:" + condition + "]\n" + lines;
}

class ConfigDedicatedFile : public ConfigTest {
 protected:
  // Reads a sound file that ends with these lines.
  Settings readSound(const std::string& lines) { return read(targets + lines); }

  void writeMeter(const std::string& file, const std::string& key) const {
    write(file, "[MetersInt]\nMeter=Key=" + key + "\n");
  }
};

// ---- The condition ------------------------------------------------------------------------------

TEST_F(ConfigDedicatedFile, ItIsReadIfItsConditionExists) {
  writeMeter("extra.conf", "a");
  EXPECT_EQ(readSound(guarded("extra.conf", "File=extra.conf\n")),
            sound({.fastMeterInts = {{.key = "a"}}}));
  EXPECT_EQ(log(), (Lines{reading("extra.conf"), done(1)}));
}

TEST_F(ConfigDedicatedFile, ItIsSkippedIfItsConditionIsMissing) {
  writeMeter("extra.conf", "a");
  EXPECT_EQ(readSound(guarded("/no/such/file", "File=extra.conf\n")), sound());
  EXPECT_EQ(log(), Lines{notThere("/no/such/file")});
}

TEST_F(ConfigDedicatedFile, ItIsSkippedIfItsConditionIsEmpty) {
  writeMeter("extra.conf", "a");
  EXPECT_EQ(readSound(guarded("", "File=extra.conf\n")), sound());
  EXPECT_EQ(log(), Lines{notThere("")});
}

TEST_F(ConfigDedicatedFile, AMissingConditionSkipsAndLogsEachPairWhateverItsKey) {
  writeMeter("extra.conf", "a");
  EXPECT_EQ(readSound(guarded("none", "File=extra.conf\nfoo=1\n extra.conf\n")), sound());
  EXPECT_EQ(log(), (Lines{notThere("none"), notThere("none"), notThere("none")}));
}

TEST_F(ConfigDedicatedFile, TheConditionMayBeAnotherFile) {
  writeMeter("extra.conf", "a");
  write("flag", "not a configuration\n");
  EXPECT_EQ(readSound(guarded("flag", "File=extra.conf\n")),
            sound({.fastMeterInts = {{.key = "a"}}}));
  EXPECT_EQ(log(), (Lines{reading("extra.conf"), done(1)}));
}

TEST_F(ConfigDedicatedFile, TheConditionMayBeAFolder) {
  writeMeter("extra.conf", "a");
  EXPECT_EQ(readSound(guarded(".", "File=extra.conf\n")), sound({.fastMeterInts = {{.key = "a"}}}));
}

// Root may read every file, so a test that runs as root becomes another user while this lives.
class OrdinaryUser {
 public:
  OrdinaryUser() { become(nobody); }
  ~OrdinaryUser() {
    become(root);
    prctl(PR_SET_DUMPABLE, 1);  // changing the user clears it, and the leak sanitizer needs it
  }
  OrdinaryUser(const OrdinaryUser&) = delete;
  OrdinaryUser& operator=(const OrdinaryUser&) = delete;

 private:
  static constexpr uid_t root = 0;
  static constexpr uid_t nobody = 65534;

  void become(uid_t user) const {
    const bool done = !wasRoot_ || setresuid(user, user, root) == 0;
    EXPECT_TRUE(done) << "can't become user " << user;
  }

  const bool wasRoot_ = geteuid() == root;
};

TEST_F(ConfigDedicatedFile, TheConditionNeedNotBeReadable) {
  using std::filesystem::perms;
  writeMeter("extra.conf", "a");
  write("flag", "");
  write("main.conf", targets + guarded("flag", "File=extra.conf\n"));
  std::filesystem::permissions("flag", perms::none);
  std::filesystem::permissions(".", perms::owner_all | perms::group_exec | perms::others_exec);
  const OrdinaryUser user;
  ASSERT_NE(access("flag", R_OK), 0);
  EXPECT_EQ(readPath("main.conf"), sound({.fastMeterInts = {{.key = "a"}}}));
}

TEST_F(ConfigDedicatedFile, TheConditionMayBeALinkToAFile) {
  writeMeter("extra.conf", "a");
  std::filesystem::create_symlink("extra.conf", "link");
  EXPECT_EQ(readSound(guarded("link", "File=extra.conf\n")),
            sound({.fastMeterInts = {{.key = "a"}}}));
}

TEST_F(ConfigDedicatedFile, ADanglingLinkIsAMissingCondition) {
  writeMeter("extra.conf", "a");
  std::filesystem::create_symlink("/no/such/file", "link");
  EXPECT_EQ(readSound(guarded("link", "File=extra.conf\n")), sound());
  EXPECT_EQ(log(), Lines{notThere("link")});
}

TEST_F(ConfigDedicatedFile, BlanksBelongToTheCondition) {
  writeMeter("extra.conf", "a");
  EXPECT_EQ(readSound(guarded(" extra.conf", "File=extra.conf\n")), sound());
  EXPECT_EQ(log(), Lines{notThere(" extra.conf")});
}

TEST_F(ConfigDedicatedFile, AConditionMayHave36Bytes) {
  const std::string whole(36, 'c');
  writeMeter(whole, "a");
  EXPECT_EQ(readSound(guarded(whole, "File=" + whole + "\n")),
            sound({.fastMeterInts = {{.key = "a"}}}));
}

TEST_F(ConfigDedicatedFile, ALongerConditionIsCutAndHoldsIfItsBeginningExists) {
  const std::string cut(36, 'c');
  write(cut, "");
  writeMeter("extra.conf", "a");
  EXPECT_EQ(readSound(guarded(cut + "d", "File=extra.conf\n")),
            sound({.fastMeterInts = {{.key = "a"}}}));
  EXPECT_EQ(log(), (Lines{reading("extra.conf"), done(1)}));
}

TEST_F(ConfigDedicatedFile, ALongerConditionIsCutAndFailsIfItsBeginningIsMissing) {
  const std::string cut(36, 'c');
  writeMeter(cut + "d", "a");
  EXPECT_EQ(readSound(guarded(cut + "d", "File=" + cut + "d\n")), sound());
  EXPECT_EQ(log(), Lines{notThere(cut)});
}

// ---- The key ------------------------------------------------------------------------------------

TEST_F(ConfigDedicatedFile, TheKeyFileMayHaveAnyCase) {
  writeMeter("one", "a");
  writeMeter("two", "b");
  EXPECT_EQ(readSound(guarded("one", "FILE=one\nfile=two\n")),
            sound({.fastMeterInts = {{.key = "a"}, {.key = "b"}}}));
  EXPECT_EQ(log(), (Lines{reading("one"), done(1), reading("two"), done(1)}));
}

TEST_F(ConfigDedicatedFile, AnUnknownKeyIsLoggedAndLeavesTheConfigurationValid) {
  writeMeter("extra.conf", "a");
  EXPECT_EQ(readSound(guarded("extra.conf", "foo=1\nFiles=extra.conf\nFile=extra.conf\n")),
            sound({.fastMeterInts = {{.key = "a"}}}));
  EXPECT_EQ(log(), (Lines{{4, "unknown field foo in engine entry section"},
                          done(0),
                          {4, "unknown field Files in engine entry section"},
                          done(0),
                          reading("extra.conf"),
                          done(1)}));
}

TEST_F(ConfigDedicatedFile, ThePathMayFillALine) {
  std::string path = "extra.conf";
  while (path.size() < 1000) path.insert(0, "./");
  writeMeter("extra.conf", "a");
  EXPECT_EQ(readSound(guarded("extra.conf", "File=" + path + "\n")),
            sound({.fastMeterInts = {{.key = "a"}}}));
  EXPECT_EQ(log(), (Lines{reading(path), done(1)}));
}

TEST_F(ConfigDedicatedFile, ThePathMayHoldBlanks) {
  writeMeter("my extra.conf", "a");
  EXPECT_EQ(readSound(guarded(".", "File = my extra.conf\n")),
            sound({.fastMeterInts = {{.key = "a"}}}));
}

// ---- Faults -------------------------------------------------------------------------------------

TEST_F(ConfigDedicatedFile, AMissingFileLeavesTheConfigurationValid) {
  EXPECT_EQ(readSound(guarded(".", "File=extra.conf\n")), sound());
  EXPECT_EQ(log(), (Lines{reading("extra.conf"), done(0)}));
}

TEST_F(ConfigDedicatedFile, AnEmptyPathLeavesTheConfigurationValid) {
  EXPECT_EQ(readSound(guarded(".", "File=\n")), sound());
  EXPECT_EQ(log(), (Lines{reading(""), done(0)}));
}

TEST_F(ConfigDedicatedFile, ABadLineInvalidatesTheConfigurationOnlyInTheMainFile) {
  const std::string bad = "[Meters]\nfoo=1\n";
  write("extra.conf", bad);
  EXPECT_EQ(readSound(guarded("extra.conf", "File=extra.conf\n")), sound());
  EXPECT_EQ(log(),
            (Lines{reading("extra.conf"), {4, "unknown field foo in Meters section"}, done(0)}));
  EXPECT_EQ(readSound(bad), unsound());
  EXPECT_EQ(log(), (Lines{{4, "unknown field foo in Meters section"}, problem(6)}));
}

TEST_F(ConfigDedicatedFile, GoodLinesAroundBadOnesTakeEffect) {
  write("extra.conf",
        "[MetersInt]\nMeter=Key=a\nbare\nMeter=Key=b Bogus=1\nMeter=Key=c\n"
        "[bogus]\nx=1\n[EngineInt]\nParam=Key=d\n");
  EXPECT_EQ(readSound(guarded("extra.conf", "File=extra.conf\n")),
            sound({.fastMeterInts = {{.key = "a"}, {.key = "c"}}, .engineInts = {{.key = "d"}}}));
  EXPECT_EQ(log(), (Lines{reading("extra.conf"),
                          {3, "unknown key Bogus while parsing meter entry"},
                          {4, "unknown section bogus in grpc gateway configuration file"},
                          done(0)}));
}

TEST_F(ConfigDedicatedFile, AGoodDedicatedFileDoesNotUndoABadLineOfTheMainFile) {
  writeMeter("extra.conf", "a");
  EXPECT_EQ(readSound("bare\n" + guarded("extra.conf", "File=extra.conf\n")),
            unsound({.fastMeterInts = {{.key = "a"}}}));
  EXPECT_EQ(log(), (Lines{reading("extra.conf"), done(1), problem(5)}));
}

// All entries are verified together, after the last line.
TEST_F(ConfigDedicatedFile, AKeyRepeatedFromTheMainFileInvalidatesTheConfiguration) {
  writeMeter("extra.conf", "a");
  EXPECT_EQ(readSound("[MetersInt]\nMeter=Key=a\n" + guarded(".", "File=extra.conf\n")),
            unsound({.fastMeterInts = {{.key = "a"}, {.key = "a"}}}));
  EXPECT_EQ(log(), (Lines{reading("extra.conf"),
                          done(1),
                          {1, "MeterEntry string settings verification failed!"}}));
}

// ---- Order --------------------------------------------------------------------------------------

TEST_F(ConfigDedicatedFile, ItsEntriesTakeThePlaceOfItsFileLine) {
  write("extra.conf", "[MetersInt]\nMeter=Key=b\nMeter=Key=c Type=slow\nMeter=Key=d\n");
  EXPECT_EQ(readSound("[MetersInt]\nMeter=Key=a\nMeter=Key=z Type=slow\n" +
                      guarded(".", "File=extra.conf\n") +
                      "[MetersInt]\nMeter=Key=e\nMeter=Key=y Type=slow\n"),
            sound({.slowMeterInts = {{.key = "z", .type = Slow},
                                     {.key = "c", .type = Slow},
                                     {.key = "y", .type = Slow}},
                   .fastMeterInts = {{.key = "a"}, {.key = "b"}, {.key = "d"}, {.key = "e"}}}));
}

TEST_F(ConfigDedicatedFile, ItOverridesEarlierSettingsAndLaterOnesOverrideIt) {
  write("extra.conf",
        "[Meters]\nTarget=inner\nEnableFastMeters=false\nEnableSlowMeters=false\n"
        "[Engine]\nTarget=inner\n");
  EXPECT_EQ(
      read("[Meters]\nTarget=outer\nEnableFastMeters=true\nEnableSlowMeters=true\n"
           "[Engine]\nTarget=outer\n" +
           guarded(".", "File=extra.conf\n") + "[Meters]\nEnableSlowMeters=true\n"),
      (Settings{.metersTarget = "inner", .enableFastMeters = false, .engineTarget = "inner"}));
  EXPECT_EQ(
      read(guarded(".", "File=extra.conf\n") +
           "[Meters]\nTarget=outer\nEnableFastMeters=true\n[Engine]\nTarget=outer\n"),
      (Settings{.metersTarget = "outer", .enableSlowMeters = false, .engineTarget = "outer"}));
}

TEST_F(ConfigDedicatedFile, EachFileLineReadsItAgain) {
  write("extra.conf", "[Meters]\nTarget=m:1\n");
  const std::string line = guarded(".", "File=extra.conf\n");
  EXPECT_EQ(readSound(line + "[Meters]\nTarget=m:2\n" + line), sound());
  EXPECT_EQ(log(), (Lines{reading("extra.conf"), done(1), reading("extra.conf"), done(1)}));
}

// ---- Nesting ------------------------------------------------------------------------------------

TEST_F(ConfigDedicatedFile, TheEnclosingFileContinuesInItsOwnSection) {
  write("one", "[EngineInt]\nParam=Key=a\n");
  write("two", "[EngineInt]\nParam=Key=b\n");
  EXPECT_EQ(readSound(guarded(".", "File=one\nFile=two\n")),
            sound({.engineInts = {{.key = "a"}, {.key = "b"}}}));
  EXPECT_EQ(log(), (Lines{reading("one"), done(1), reading("two"), done(1)}));
}

TEST_F(ConfigDedicatedFile, TheEnclosingFileKeepsItsPendingName) {
  write("one", "[EngineInt]\nParam=Key=a\n");
  write("two", "[EngineInt]\nParam=Key=b\n");
  EXPECT_EQ(readSound(guarded(".", "File=one\n  two\n")),
            sound({.engineInts = {{.key = "a"}, {.key = "b"}}}));
  EXPECT_EQ(log(), (Lines{reading("one"), done(1), reading("two"), done(1)}));
}

TEST_F(ConfigDedicatedFile, ItStartsWithoutASectionOrAPendingName) {
  write("extra.conf", "  indented\nParam=Key=a\n");
  EXPECT_EQ(readSound("[EngineInt]\nParam=Key=b\n" + guarded(".", "File=extra.conf\n")),
            sound({.engineInts = {{.key = "b"}}}));
  EXPECT_EQ(log(), (Lines{reading("extra.conf"),
                          {4, "unknown section  in grpc gateway configuration file"},
                          done(0)}));
}

TEST_F(ConfigDedicatedFile, ItMayNameFurtherDedicatedFiles) {
  write("one",
        "[MetersInt]\nMeter=Key=a\n" + guarded("two", "File=two\n") + "[MetersInt]\nMeter=Key=c\n");
  write("two", "[MetersInt]\nMeter=Key=b\n" + guarded("three", "File=three\n"));
  write("three", "[EngineInt]\nParam=Key=d\n");
  EXPECT_EQ(readSound(guarded("one", "File=one\n") + "[MetersInt]\nMeter=Key=e\n"),
            sound({.fastMeterInts = {{.key = "a"}, {.key = "b"}, {.key = "c"}, {.key = "e"}},
                   .engineInts = {{.key = "d"}}}));
  EXPECT_EQ(log(),
            (Lines{reading("one"), reading("two"), reading("three"), done(1), done(1), done(1)}));
}

TEST_F(ConfigDedicatedFile, ItSucceedsEvenIfAFileThatItNamesFails) {
  write("one", guarded(".", "File=two\n"));
  write("two", "bare\n");
  EXPECT_EQ(readSound(guarded(".", "File=one\n")), sound());
  EXPECT_EQ(log(), (Lines{reading("one"), reading("two"), done(0), done(1)}));
}

// Limits the process to few open files while it lives.
class FewDescriptors {
 public:
  FewDescriptors() {
    getrlimit(RLIMIT_NOFILE, &before_);
    const rlimit few{40, before_.rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
  }
  ~FewDescriptors() { setrlimit(RLIMIT_NOFILE, &before_); }
  FewDescriptors(const FewDescriptors&) = delete;
  FewDescriptors& operator=(const FewDescriptors&) = delete;

  // How many more files can be opened.
  static std::size_t left() {
    std::vector<std::ifstream> files;
    do {
      files.emplace_back("/dev/null");
    } while (files.back().is_open());
    return files.size() - 1;
  }

 private:
  rlimit before_{};
};

TEST_F(ConfigDedicatedFile, AFileThatNamesItselfIsReadUntilNoMoreFilesCanBeOpened) {
  write("self", "[MetersInt]\n" + guarded("self", "File=self\n"));
  write("main.conf", targets + guarded("self", "File=self\n"));
  std::size_t depth = 0;  // one of the files is main.conf, and one reading fails
  {
    const FewDescriptors few;
    depth = few.left();
    EXPECT_EQ(readPath("main.conf"), sound());
  }
  const Lines lines = log();
  ASSERT_GT(depth, 20u);
  Lines expected(depth, reading("self"));
  expected.push_back(done(0));
  expected.resize(2 * depth, done(1));
  EXPECT_EQ(lines, expected);
}

}  // namespace
}  // namespace gateway
