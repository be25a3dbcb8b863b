#include "tools/lsp/lsp.h"

#include <unistd.h>

#include <csignal>
#include <memory>
#include <string>

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
  const auto target = std::make_shared<std::string>();
  command
      ->add_option("--target", *target,
                   "Complete the keys that this meter server sends, such as 127.0.0.1:50005.")
      ->type_name("TARGET");
  command->footer(tools::manualOf(lsp::manual_txt));
  command->callback([target, &exitCode] {
    std::signal(SIGPIPE, SIG_IGN);
    const standin::Host host({.keepRecords = false});
    exitCode = lsp::Session(STDIN_FILENO, STDOUT_FILENO, *target).run();
  });
}
