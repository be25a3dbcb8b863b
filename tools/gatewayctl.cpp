// gatewayctl - tools around the grpc-gateway module, a sub-command each.
//
// Exit codes of all sub-commands: 0 done, 1 the configuration was refused or the run failed, 2
// wrong use, 130 interrupted by SIGINT or SIGTERM; check has more. A sub-command throws
// CLI::ParseError for wrong use and any other std::exception for a failed run; otherwise it sets
// the code itself. Results go to standard output, logs and messages to standard error.
#include <fcntl.h>
#include <fmt/core.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <string>
#include <vector>

#include "tools/check/check.h"
#include "tools/common/Suggestion.h"
#include "tools/demo/demo.h"
#include "tools/discover/discover.h"
#include "tools/host/host.h"
#include "tools/sim/sim.h"

// Whoever starts a program may have closed these; the next file or socket would take their place,
// and get what is meant for the terminal. In this place writing and reading fail.
void keepStandardDescriptors() {
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(descriptor, F_GETFD) >= 0) continue;
    open("/dev/null", descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY);
  }
}

// What to say to a command that there is not; nothing if there is one.
std::string unknownCommand(const CLI::App& app, const std::string& word) {
  std::vector<std::string> names;
  for (const CLI::App* command : app.get_subcommands(nullptr)) names.push_back(command->get_name());
  const bool isKnown = std::find(names.begin(), names.end(), word) != names.end();
  if (isKnown || word.starts_with('-')) return {};
  return fmt::format("no command \"{}\"{}", word, tools::didYouMean(word, names));
}

// What even the messages of a failure can raise ends the program, as it should.
// NOLINTNEXTLINE(bugprone-exception-escape)
int main(int argc, char** argv) {
  keepStandardDescriptors();
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

  const std::string unknown = argc > 1 ? unknownCommand(app, argv[1]) : "";
  if (!unknown.empty()) {
    fmt::print(stderr, "gatewayctl: {}\nRun with --help for more information.\n", unknown);
    return 2;
  }
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
