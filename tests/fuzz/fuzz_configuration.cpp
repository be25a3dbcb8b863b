// Any bytes as a configuration of up to three files: it is accepted or refused, and an accepted one
// keeps the promises that the rest of the module builds on.
#include <set>
#include <string>

#include "module/grpc-gateway/ConfigManager.h"
#include "standin/Host.h"
#include "tests/fuzz/ConfigurationFiles.h"
#include "tests/fuzz/Target.h"

namespace {

using fuzz::require;
using gateway::ConfigManager;

template <class Entries>
void checkEntries(const Entries& entries) {
  std::set<std::string> keys;
  for (const auto& entry : entries) {
    require(!entry.key.empty(), "an entry has a key");
    require(entry.customKey.size() <= 99, "a name fits its slot");
    require(keys.insert(entry.key).second, "a key is unique in its list");
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
  const auto eachEngineList = [&](auto use) {
    return use(config.engineStrings, config.engineInts, config.engineUints, config.engineFloats);
  };
  const auto areEmpty = [](const auto&... lists) { return allEmpty(lists...); };
  const auto checkAll = [](const auto&... lists) { (checkEntries(lists), ...); };

  const bool anyRate = config.enableFastMeters || config.enableSlowMeters;
  require(config.metersTarget.empty() != anyRate, "a rate and a target need each other");
  require(!config.metersTarget.empty() || eachMeterList(areEmpty), "meters have a target");
  require(!config.engineTarget.empty() || eachEngineList(areEmpty), "parameters have a target");
  eachMeterList(checkAll);
  eachEngineList(checkAll);
}

}  // namespace

fuzz::Result fuzz::tryInput(std::string_view input) {
  static standin::Host host({.keepRecords = false});
  static ConfigurationFiles files;
  // The module knows no end of a file that names itself.
  if (!files.write(input) || files.mayLoop()) return Result::PassedOver;
  const ConfigManager config(ConfigurationFiles::mainPath);
  if (config.valid) check(config);
  return config.valid ? Result::Accepted : Result::Refused;
}
