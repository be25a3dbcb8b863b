// What gatewayctl says about itself: --help, messages about wrong use, and the sub-commands that
// print the completions of shells and the sources of man pages.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace manual {

// Makes a parser whose --help is a manual, and that of each of its sub-commands, too.
void addHelp(CLI::App& app);

// Adds the sub-commands `completion` and, hidden, `manual`, which know all sub-commands that `app`
// has when it parses. Both arguments must outlive the parsing, which runs a sub-command and stores
// its exit code.
void addManual(CLI::App& app, int& exitCode);

// The name of the sub-command that was parsed, or nothing.
std::string subcommandOf(const CLI::App& app);

}  // namespace manual
