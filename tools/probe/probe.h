// gatewayctl probe: says whether a server is fit for the gateway, check by check.
//
// manual.txt is the manual.
#pragma once

#include <CLI/CLI.hpp>

// Adds the sub-command to `app`. If it is on the command line, parsing runs it to completion on the
// calling thread and stores its exit code. Both arguments must outlive the parsing. Throws
// CLI::ParseError for wrong use, and std::exception for other errors. Blocks SIGINT and SIGTERM for
// the calling thread and for threads started from it, and handles these signals itself.
void addProbe(CLI::App& app, int& exitCode);
