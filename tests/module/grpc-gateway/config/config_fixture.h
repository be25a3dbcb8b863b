// The vocabulary of the configuration tests. They read a text as a configuration file and compare
// all of the outcome: the whole configuration and every line of the log.
#ifndef TESTS_CONFIG_FIXTURE_H
#define TESTS_CONFIG_FIXTURE_H

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <ostream>
#include <string>
#include <vector>

#include "module/grpc-gateway/ConfigManager.h"
#include "standin/Host.h"
#include "tests/support/TemporaryFolder.h"

namespace gateway {

// Entries and configurations as values that a test can write down.
template <class T>
struct Meter {
  std::string key = {};
  std::string customKey = {};
  MeterEntryType type = MeterEntryType::Fast;
  T defaultValue = {};

  bool operator==(const Meter&) const = default;
};

struct Param {
  std::string key = {};
  std::string customKey = {};

  bool operator==(const Param&) const = default;
};

// Everything that a ConfigManager holds. Fields that a test does not name have a ConfigManager's
// initial values.
struct Settings {
  std::string metersTarget = {};
  bool enableFastMeters = true;
  bool enableSlowMeters = true;
  std::string engineTarget = {};
  std::vector<Meter<std::string>> slowMeterStrings = {};
  std::vector<Meter<std::int32_t>> slowMeterInts = {};
  std::vector<Meter<std::uint32_t>> slowMeterUints = {};
  std::vector<Meter<float>> slowMeterFloats = {};
  std::vector<Meter<std::string>> fastMeterStrings = {};
  std::vector<Meter<std::int32_t>> fastMeterInts = {};
  std::vector<Meter<std::uint32_t>> fastMeterUints = {};
  std::vector<Meter<float>> fastMeterFloats = {};
  std::vector<Param> engineStrings = {};
  std::vector<Param> engineInts = {};
  std::vector<Param> engineUints = {};
  std::vector<Param> engineFloats = {};
  bool valid = true;

  bool operator==(const Settings&) const = default;
};

void PrintTo(const Settings& settings, std::ostream* out);

// One line of the log.
struct Line {
  int level = 0;
  std::string text = {};

  bool operator==(const Line&) const = default;
};
using Lines = std::vector<Line>;

void PrintTo(const Line& line, std::ostream* out);

// The first four lines of a sound file, to which any entries may be added.
inline constexpr char targets[] = "[Meters]\nTarget=m:1\n[Engine]\nTarget=e:2\n";

// The settings that such a file gives, together with these.
inline Settings sound(Settings settings = {}) {
  settings.metersTarget = "m:1";
  settings.engineTarget = "e:2";
  return settings;
}

// The same for a file that is refused.
inline Settings unsound(Settings settings = {}) {
  settings.valid = false;
  return sound(settings);
}

// The last line of the log after a bad line in the main file; -1 is for a missing file.
inline Line problem(int result) {
  return {3, "configManager: problem parsing main.conf (" + std::to_string(result) + ")"};
}

// Each test has a folder for its files. It is the current one, so that files need no path.
class ConfigTest : public testing::Test {
 protected:
  ConfigTest() { std::filesystem::current_path(folder_.path("")); }
  ~ConfigTest() override { std::filesystem::current_path(before_); }

  // Writes a file to the folder.
  void write(const std::string& name, const std::string& text) const { folder_.write(name, text); }

  // Reads the text as the main file, main.conf.
  Settings read(const std::string& text);
  // Reads a file, which need not exist.
  Settings readPath(const std::string& path);

  // Everything that the last reading logged.
  Lines log() const;

  const TemporaryFolder folder_;

 private:
  const std::filesystem::path before_ = std::filesystem::current_path();
  standin::Host host_;
};

}  // namespace gateway

#endif
