// gatewayctl top: runs the module in the stand-in host, as `gatewayctl host` does, and shows its
// levels, values and links on the terminal.
//
// manual.txt is the manual.
#pragma once

#include <CLI/CLI.hpp>

// Adds the sub-command to `app`. If the command line names it, parsing runs it to its end on the
// calling thread and stores its exit code. Both arguments must outlive the parsing. Throws
// CLI::ParseError for wrong use and std::runtime_error if the module can't be loaded. Handles
// SIGINT and SIGTERM itself, and blocks them for the calling thread and those started from it.
void addTop(CLI::App& app, int& exitCode);
