// gatewayctl lsp: a language server for configurations, for editors. manual.txt is the manual.
#pragma once

#include <CLI/CLI.hpp>

// Adds the sub-command to `app`. If it is on the command line, parsing runs it to completion on the
// calling thread and stores its exit code. Both arguments must outlive the parsing. Throws
// CLI::ParseError for wrong use, and std::runtime_error if the run fails.
void addLsp(CLI::App& app, int& exitCode);
