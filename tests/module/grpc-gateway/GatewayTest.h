// The vocabulary of tests that load the built module as a host does.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <string>
#include <vector>

#include "standin/Host.h"
#include "standin/LoadedModule.h"
#include "tests/module/grpc-gateway/ModuleLog.h"
#include "tests/support/TemporaryFolder.h"

using Journal = std::vector<std::string>;

// For death tests that may end either way: by a signal, or with a sanitizer's report.
inline bool endsAbnormally(int status) {
  return !WIFEXITED(status) || WEXITSTATUS(status) != 0;
}

class GatewayTest : public ::testing::Test {
 protected:
  ~GatewayTest() override { expectModuleLog(host.log()); }

  // What a stop logs, without the tags that it flushes.
  const Journal stopSteps = {
      "log 1 stopCycle(gateway)",
      "log 3 grpc-gateway: destroying module manager..",
      "log 1 Destructing gRPC gateway client singleton",
      "log 1 Stop gRPC Gateway client",
      "log 1 Stop gRPC Gateway complete",
      "log 1 Shutting down completion queue",
      "log 1 Starting completion queue flush",
      "log 1 Completion queue flush ended",
  };

  // Writes a configuration file and starts the module with it.
  int start(const std::string& configuration) {
    return instance.start(files.write("gateway.conf", configuration));
  }

  // The journal without log lines, and the log lines alone.
  Journal journalWithoutLog() const { return filtered(false); }
  Journal log() const {
    expectModuleLog(host.log());
    return filtered(true);
  }

  // Holds at the end of every test that has stopped what it started.
  void expectNothingLeft() const {
    EXPECT_EQ(host.outstanding(), standin::Outstanding{});
    EXPECT_EQ(host.violations(), std::vector<std::string>{});
    EXPECT_TRUE(instance.hostBytesIntact());
  }

  standin::Host host;
  standin::Engine engine;
  standin::LoadedModule module{GATEWAY_MODULE};
  standin::ModuleInstance instance{module, engine};
  TemporaryFolder files;

 private:
  Journal filtered(bool logLines) const {
    Journal lines;
    for (const std::string& line : host.journal()) {
      if (line.starts_with("log ") == logLines) lines.push_back(line);
    }
    return lines;
  }
};
