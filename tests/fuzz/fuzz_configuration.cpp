// Any bytes as a configuration of up to three files: the module makes of it what a second, naive
// account makes of it, in every list and switch, accepted or not.
#include "module/grpc-gateway/ConfigManager.h"
#include "standin/Host.h"
#include "tests/fuzz/ConfigurationFiles.h"
#include "tests/fuzz/NaiveConfiguration.h"
#include "tests/fuzz/Target.h"

fuzz::Result fuzz::tryInput(std::string_view input) {
  static standin::Host host({.keepRecords = false});
  static ConfigurationFiles files;
  // The module knows no end of a file that names itself.
  if (!files.write(input) || files.mayLoop()) return Result::PassedOver;
  const gateway::ConfigManager config(ConfigurationFiles::mainPath);
  const auto textOf = [](std::string_view path) { return files.textOf(path); };
  const NaiveConfiguration expected(textOf, ConfigurationFiles::mainPath);
  require(NaiveConfiguration(config) == expected, "the configuration is what it says");
  return config.valid ? Result::Accepted : Result::Refused;
}
