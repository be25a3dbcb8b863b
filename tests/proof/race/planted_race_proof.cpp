// In spite of everything that the thread sanitizer is told to ignore, it reports a race of ours: a
// start and stop of the module pass, and the same with a race planted in the module is reported.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "standin/Host.h"
#include "standin/LoadedModule.h"
#include "tests/proof/Proof.h"
#include "tests/support/TemporaryFolder.h"

namespace {

// The exit code of a program that the sanitizer has reported.
constexpr int findingsExitCode = 66;

// Both meter streams are refused at once, and their ends keep the loop busy.
constexpr char configuration[] = "[Meters]\nTarget=localhost:1\n";

// One stop is not enough: on a busy machine, the sanitizer missed the race in one of eighty.
constexpr int stops = 5;

[[noreturn]] void startAndStop(const char* modulePath) {
  {
    const standin::Host host;
    standin::Engine engine;
    const standin::LoadedModule module(modulePath);
    const TemporaryFolder files;
    const std::string configured = files.write("gateway.conf", configuration);
    for (int i = 0; i < stops; ++i) {
      standin::ModuleInstance instance(module, engine);
      if (instance.start(configured) != 0) std::_Exit(1);
      instance.stop();
    }
  }
  // The usual exit, at which the sanitizer sets the code.
  std::exit(0);
}

TEST(PlantedRace, IsReported) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(startAndStop(GATEWAY_MODULE), ::testing::ExitedWithCode(0), "");
  EXPECT_EXIT(startAndStop(RACED_MODULE), ::testing::ExitedWithCode(findingsExitCode),
              "data race.*(asyncMainLoop|stopClient)");
  proof::report({"Sanitizers",
                 "a race planted in the module: `running` as a plain bool",
                 "",
                 {{"modules, one of them with the race", 2}},
                 "the thread sanitizer reports the one with the race, and not the other"});
}

}  // namespace
