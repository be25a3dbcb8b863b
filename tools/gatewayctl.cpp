// gatewayctl - tools around the grpc-gateway module, a sub-command each.
//
// A sub-command throws CLI::ParseError for wrong use and any other std::exception for a failed run;
// otherwise it sets the exit code itself (tools/common/ExitCode.h). Results go to standard output,
// logs and messages to standard error.
#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <exception>

#include "tools/check/check.h"
#include "tools/common/ExitCode.h"
#include "tools/common/Output.h"
#include "tools/demo/demo.h"
#include "tools/discover/discover.h"
#include "tools/host/host.h"
#include "tools/lsp/lsp.h"
#include "tools/manual/manual.h"
#include "tools/probe/probe.h"
#include "tools/record/record.h"
#include "tools/sim/sim.h"
#include "tools/top/top.h"

// A parent process may have closed the standard descriptors. The next file or socket would get one
// of these numbers, and with it what is meant for the terminal. The descriptors opened here keep
// the numbers taken, and fail every read and write.
void keepStandardDescriptors() {
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(descriptor, F_GETFD) >= 0) continue;
    open("/dev/null", descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY);
  }
}

// An exception while a failure is reported ends the program, as it should.
// NOLINTNEXTLINE(bugprone-exception-escape)
int main(int argc, char** argv) {
  keepStandardDescriptors();
  CLI::App app("Tools around the grpc-gateway module", "gatewayctl");
  manual::addHelp(app);
  app.require_subcommand(1);
  int exitCode = tools::ExitCode::Done;
  addCheck(app, exitCode);
  addDemo(app, exitCode);
  addDiscover(app, exitCode);
  addHost(app, exitCode);
  addLsp(app, exitCode);
  addProbe(app, exitCode);
  addRecord(app, exitCode);
  addSim(app, exitCode);
  addTop(app, exitCode);
  manual::addManual(app, exitCode);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    exitCode = app.exit(error) == 0 ? tools::ExitCode::Done : tools::ExitCode::WrongUse;
  } catch (const std::exception& error) {
    tools::say(manual::subcommandOf(app), error.what());
    return tools::ExitCode::Failed;
  }
  if (exitCode != tools::ExitCode::Done || !tools::outputIsLost()) return exitCode;
  tools::say(manual::subcommandOf(app), "can't write to standard output");
  return tools::ExitCode::Failed;
}
