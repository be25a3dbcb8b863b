// Any bytes as a configuration of up to three files. The module must agree with a second, naive
// implementation in every list and switch, whether it accepts the configuration or not.
#include "module/grpc-gateway/ConfigManager.h"
#include "standin/Host.h"
#include "tests/fuzz/ConfigurationFiles.h"
#include "tests/fuzz/NaiveConfiguration.h"
#include "tests/fuzz/Target.h"

fuzz::Result fuzz::tryInput(std::string_view input) {
  static standin::Host host({.keepRecords = false});
  static ConfigurationFiles files;
  // The module would read a file that names itself forever.
  if (!files.write(input) || files.mayLoop()) return Result::Skipped;
  const gateway::ConfigManager config(ConfigurationFiles::mainPath);
  const auto textOf = [](std::string_view path) { return files.textOf(path); };
  const NaiveConfiguration expected(textOf, ConfigurationFiles::mainPath);
  require(NaiveConfiguration(config) == expected,
          "the module reads the configuration like the naive implementation");
  return config.valid ? Result::Accepted : Result::Refused;
}
