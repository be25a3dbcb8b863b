// Any bytes as a configuration file: they are accepted or refused, and an accepted one keeps the
// promises that the rest of the module builds on. A file is not followed into others.
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <set>
#include <string>
#include <string_view>

#include "module/grpc-gateway/ConfigManager.h"
#include "standin/Host.h"

namespace {

using gateway::ConfigManager;

// Counts that show at the end whether the inputs were of both kinds.
struct Outcomes {
  std::uint64_t accepted = 0;
  std::uint64_t refused = 0;
  ~Outcomes() {
    std::fprintf(stderr, "accepted %llu, refused %llu\n", static_cast<unsigned long long>(accepted),
                 static_cast<unsigned long long>(refused));
    if (accepted + refused > 1000 && (accepted == 0 || refused == 0)) {
      std::fprintf(stderr, "all inputs ended the same way: mend the corpus\n");
      std::_Exit(1);
    }
  }
};

void require(bool promise) {
  if (!promise) std::abort();
}

template <class Entries>
void checkEntries(const Entries& entries) {
  std::set<std::string> keys;
  for (const auto& entry : entries) {
    require(!entry.key.empty() && entry.customKey.size() <= 99);
    require(keys.insert(entry.key).second);
  }
}

template <class... Lists>
bool allEmpty(const Lists&... lists) {
  return (lists.empty() && ...);
}

void check(const ConfigManager& config) {
  const auto eachMeterList = [&](auto use) {
    return use(config.slowMeterStrings, config.slowMeterInts, config.slowMeterUints,
               config.slowMeterFloats, config.fastMeterStrings, config.fastMeterInts,
               config.fastMeterUints, config.fastMeterFloats);
  };
  const bool anyRate = config.enableFastMeters || config.enableSlowMeters;
  require(config.metersTarget.empty() != anyRate);
  const bool noMeters = eachMeterList([](const auto&... lists) { return allEmpty(lists...); });
  require(!config.metersTarget.empty() || noMeters);
  require(!config.engineTarget.empty() || allEmpty(config.engineStrings, config.engineInts,
                                                   config.engineUints, config.engineFloats));
  eachMeterList([](const auto&... lists) { (checkEntries(lists), ...); });
  checkEntries(config.engineStrings);
  checkEntries(config.engineInts);
  checkEntries(config.engineUints);
  checkEntries(config.engineFloats);
}

// One file for the whole run: a name for each input would cost more than the parsing.
class InputFile {
 public:
  InputFile() : descriptor_(mkstemp(path_)) { require(descriptor_ >= 0); }
  ~InputFile() {
    close(descriptor_);
    unlink(path_);
  }
  const char* write(const std::uint8_t* data, std::size_t size) {
    require(ftruncate(descriptor_, 0) == 0);
    require(pwrite(descriptor_, data, size, 0) == static_cast<ssize_t>(size));
    return path_;
  }

 private:
  char path_[32] = "/tmp/gateway-fuzz-XXXXXX";
  int descriptor_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static standin::Host host({.keepRecords = false});
  static InputFile file;
  static Outcomes outcomes;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  // Otherwise an input could name any file of the machine, or itself without end.
  if (text.find("ParseIfExist:") != text.npos) return -1;
  const ConfigManager config(file.write(data, size));
  ++(config.valid ? outcomes.accepted : outcomes.refused);
  if (config.valid) check(config);
  return 0;
}
