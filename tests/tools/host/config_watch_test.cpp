// Which changes of files the watch reports, however an editor writes them.
#include "tools/host/ConfigWatch.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "tests/support/TemporaryFolder.h"

namespace {

using host::Clock;
namespace fs = std::filesystem;

// Time passes only here: each look is long after the one before.
class ConfigWatch : public ::testing::Test {
 protected:
  bool hasChanged() {
    time += std::chrono::seconds(1);
    return watch.hasChanged(time);
  }

  // The looks find events, a first content, and then the same content again.
  bool settlesOnAChange() {
    EXPECT_FALSE(hasChanged());
    EXPECT_FALSE(hasChanged());
    return hasChanged();
  }

  TemporaryFolder files;
  const std::string extra = files.path("extra.conf");
  const std::string text = "[ParseIfExist:" + extra + "]\nFile=" + extra + "\n";
  const std::string path = files.write("gateway.conf", text);
  Clock::time_point time = Clock::now();
  host::ConfigWatch watch{path};
};

TEST_F(ConfigWatch, ReportsNothingWhileNothingChanges) {
  for (int i = 0; i < 4; ++i) EXPECT_FALSE(hasChanged());
}

TEST_F(ConfigWatch, ReportsAFileWrittenInPlaceOnce) {
  EXPECT_FALSE(hasChanged());
  files.write("gateway.conf", "[Meters]\n");
  EXPECT_TRUE(settlesOnAChange());
  for (int i = 0; i < 4; ++i) EXPECT_FALSE(hasChanged());
}

TEST_F(ConfigWatch, ReportsAFileReplacedByRenaming) {
  EXPECT_FALSE(hasChanged());
  fs::rename(files.write("gateway.conf.new", "[Meters]\n"), path);
  EXPECT_TRUE(settlesOnAChange());
}

TEST_F(ConfigWatch, WaitsForTheSecondStepOfAWrite) {
  EXPECT_FALSE(hasChanged());
  files.write("gateway.conf", "");
  EXPECT_FALSE(hasChanged());
  EXPECT_FALSE(hasChanged());
  files.write("gateway.conf", "[Meters]\n");
  EXPECT_FALSE(hasChanged());
  EXPECT_TRUE(hasChanged());
}

TEST_F(ConfigWatch, IgnoresATouchAndAChangeThatIsUndone) {
  EXPECT_FALSE(hasChanged());
  fs::last_write_time(path, fs::file_time_type::clock::now());
  EXPECT_FALSE(settlesOnAChange());
  fs::remove(path);
  EXPECT_FALSE(hasChanged());
  EXPECT_FALSE(hasChanged());
  files.write("gateway.conf", text);
  EXPECT_FALSE(settlesOnAChange());
}

TEST_F(ConfigWatch, ComparesWithTheContentInUse) {
  EXPECT_FALSE(hasChanged());
  for (int i = 0; i < 2; ++i) {
    files.write("gateway.conf", "[Metters]\n");
    EXPECT_TRUE(settlesOnAChange());
    files.write("gateway.conf", text);
    EXPECT_FALSE(settlesOnAChange()) << "a refused edit was undone";
  }
  files.write("gateway.conf", "[Meters]\n");
  EXPECT_TRUE(settlesOnAChange());
  watch.accept();
  files.write("gateway.conf", text);
  EXPECT_TRUE(settlesOnAChange());
}

TEST_F(ConfigWatch, ReportsAnyContentWhileNoneIsInUse) {
  EXPECT_FALSE(hasChanged());
  files.write("gateway.conf", "[Metters]\n");
  EXPECT_TRUE(settlesOnAChange());
  watch.forget();
  files.write("gateway.conf", text);
  EXPECT_TRUE(settlesOnAChange());
}

TEST_F(ConfigWatch, ReportsADedicatedFileThatAppearsChangesAndGoes) {
  EXPECT_FALSE(hasChanged());
  files.write("extra.conf", "[EngineInt]\n");
  EXPECT_TRUE(settlesOnAChange());
  watch.accept();
  files.write("extra.conf", "[EngineFloat]\n");
  EXPECT_TRUE(settlesOnAChange());
  watch.accept();
  fs::remove(extra);
  EXPECT_TRUE(settlesOnAChange());
}

TEST_F(ConfigWatch, FollowsADedicatedFileIntoAFolderThatIsMadeLater) {
  const std::string later = files.path("later/extra.conf");
  files.write("gateway.conf", "[ParseIfExist:" + later + "]\nFile=" + later + "\n");
  EXPECT_FALSE(hasChanged());
  EXPECT_TRUE(hasChanged());
  fs::create_directory(files.path("later"));
  for (int i = 0; i < 3; ++i) EXPECT_FALSE(hasChanged());
  files.write("later/extra.conf", "[EngineInt]\n");
  EXPECT_TRUE(settlesOnAChange());
}

TEST_F(ConfigWatch, FollowsSymbolicLinks) {
  TemporaryFolder elsewhere;
  const std::string target = elsewhere.write("target.conf", "[Meters]\n");
  const std::string link = files.path("link.conf");
  fs::create_symlink(target, link);
  host::ConfigWatch ofLink(link);
  const auto changed = [&] {
    time += std::chrono::seconds(1);
    return ofLink.hasChanged(time);
  };
  EXPECT_FALSE(changed());
  elsewhere.write("target.conf", "[Engine]\n");
  EXPECT_FALSE(changed());
  EXPECT_FALSE(changed());
  EXPECT_TRUE(changed());
}

// The reader itself would never finish.
TEST_F(ConfigWatch, ReadsAFileThatNamesItselfOnce) {
  EXPECT_FALSE(hasChanged());
  files.write("gateway.conf", "[ParseIfExist:" + path + "]\nFile=" + path + "\n");
  EXPECT_TRUE(settlesOnAChange());
}

}  // namespace
