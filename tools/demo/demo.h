// gatewayctl demo: the simulator and the host side by side, with the example configuration.
//
// Both are processes of their own and meet over the network, as real ones do. manual.txt is the
// manual.
#pragma once

#include <CLI/CLI.hpp>

// Adds the sub-command to `app`. If it is on the command line, parsing runs it to completion on the
// calling thread and stores its exit code. Both arguments must outlive the parsing. Throws
// CLI::ParseError for wrong use, and std::runtime_error if the simulator can't be started. Blocks
// SIGINT and SIGTERM for the calling thread, and handles these signals itself. The process must
// have no other threads.
void addDemo(CLI::App& app, int& exitCode);
