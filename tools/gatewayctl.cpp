// gatewayctl - tools around the grpc-gateway module, a sub-command each.
//
// Exit codes of all sub-commands: 0 done, 1 the configuration was refused or the run failed, 2
// wrong use, 130 interrupted by SIGINT or SIGTERM; check has more. A sub-command throws
// CLI::ParseError for wrong use and any other std::exception for a failed run; otherwise it sets
// the code itself. Results go to standard output, logs and messages to standard error.
#include <fmt/core.h>

#include <CLI/CLI.hpp>
#include <exception>

#include "tools/check/check.h"
#include "tools/demo/demo.h"
#include "tools/discover/discover.h"
#include "tools/host/host.h"
#include "tools/sim/sim.h"

// What even the messages of a failure can raise ends the program, as it should.
// NOLINTNEXTLINE(bugprone-exception-escape)
int main(int argc, char** argv) {
  CLI::App app("Tools around the grpc-gateway module.", "gatewayctl");
  app.set_version_flag("--version", "gatewayctl " GATEWAY_VERSION);
  app.footer(
      "Example: see values move, between simulated services\n"
      "  gatewayctl demo\n\n"
      "gatewayctl SUBCOMMAND --help is the manual of a sub-command.\n\n"
      "Exit codes: 0 done, 1 the configuration was refused or the run failed, 2 wrong use,\n"
      "130 interrupted; 3, of check only: accepted with warnings under --strict.");
  app.require_subcommand(1);
  int exitCode = 0;
  addCheck(app, exitCode);
  addDemo(app, exitCode);
  addDiscover(app, exitCode);
  addHost(app, exitCode);
  addSim(app, exitCode);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 2;
  } catch (const std::exception& error) {
    fmt::print(stderr, "gatewayctl: {}\n", error.what());
    return 1;
  }
  return exitCode;
}
