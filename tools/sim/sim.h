// gatewayctl sim: a stand-in for the meter server and the engine service, on the command line.
//
// It plays signals, so that one can watch data flow. Or it obeys commands on standard input and
// reports what happens on standard output, so that tests and scripts can drive it. manual.txt is
// the manual.
#pragma once

#include <CLI/CLI.hpp>

// Adds the sub-command to `app`. If it is on the command line, parsing runs it to completion on the
// calling thread and stores its exit code. Both arguments must outlive the parsing. Throws
// CLI::ParseError for wrong use, and std::runtime_error if an address can't be listened on. Blocks
// SIGINT and SIGTERM for the calling thread and for threads started from it, and handles these
// signals itself.
void addSim(CLI::App& app, int& exitCode);
