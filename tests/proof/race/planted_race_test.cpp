// The thread sanitizer, with all that it is told to leave alone, reports a race of ours: the same
// start and stop pass with the module as it is, and are reported with a race planted in it.
#include <gtest/gtest.h>

#include <cstdlib>

#include "standin/Host.h"
#include "standin/LoadedModule.h"
#include "tests/proof/Proof.h"
#include "tests/support/TemporaryFolder.h"

namespace {

// What the sanitizer makes of a program with findings.
constexpr int findingsExitCode = 66;

// Both meter streams are refused at once: their ends keep the loop busy.
constexpr char configuration[] = "[Meters]\nTarget=localhost:1\n";

[[noreturn]] void startAndStop(const char* modulePath) {
  {
    const standin::Host host;
    standin::Engine engine;
    const standin::LoadedModule module(modulePath);
    const TemporaryFolder files;
    standin::ModuleInstance instance(module, engine);
    if (instance.start(files.write("gateway.conf", configuration)) != 0) std::_Exit(1);
    instance.stop();
  }
  // By its usual way, on which the sanitizer sets the code.
  std::exit(0);
}

TEST(PlantedRace, IsReported) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(startAndStop(GATEWAY_MODULE), ::testing::ExitedWithCode(0), "");
  EXPECT_EXIT(startAndStop(RACED_MODULE), ::testing::ExitedWithCode(findingsExitCode),
              "data race.*(asyncMainLoop|stopClient)");
  proof::report({"Sanitizers", "a race planted in the module: `running` as a plain bool",
                 "one start and stop each of the module and of the raced one",
                 "the raced one is reported by the thread sanitizer, the other is not"});
}

}  // namespace
