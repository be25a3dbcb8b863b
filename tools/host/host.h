// gatewayctl host: runs the module in the stand-in host, to show without the engine what it logs,
// what its slots hold, and what a parameter change does.
//
// Its `--help` is its manual: host.cpp describes options and commands where it parses them.
#pragma once

#include <CLI/CLI.hpp>

// Adds the sub-command to `app`. When it is given, parsing runs it to its end on the calling thread
// and stores its exit code. Both arguments must outlive the parsing. Throws CLI::ParseError for
// wrong use and std::runtime_error if the module can't be loaded. Blocks SIGINT and SIGTERM for the
// calling thread and those started from it: it takes these signals itself.
void addHost(CLI::App& app, int& exitCode);
