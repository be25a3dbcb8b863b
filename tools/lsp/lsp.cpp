#include "tools/lsp/lsp.h"

#include <unistd.h>

#include <csignal>

#include "manual.h"
#include "standin/Host.h"
#include "tools/common/ManualText.h"
#include "tools/lsp/Session.h"

void addLsp(CLI::App& app, int& exitCode) {
  CLI::App* const command =
      app.add_subcommand("lsp", "Check configurations in an editor while they are being written");
  // Editors add the flag; there is no other transport.
  command->add_flag_callback(
      "--stdio", [] {}, "Use standard input and output, which the server always does.");
  command->footer(tools::manualOf(lsp::manual_txt));
  command->callback([&exitCode] {
    std::signal(SIGPIPE, SIG_IGN);
    const standin::Host host({.keepRecords = false});
    exitCode = lsp::Session(STDIN_FILENO, STDOUT_FILENO).run();
  });
}
