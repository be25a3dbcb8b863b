// gatewayctl discover: listens to a meter server, and writes a configuration for everything that it
// sends.
//
// Its `--help` is its manual: discover.cpp describes the options and the JSON document.
#pragma once

#include <CLI/CLI.hpp>

// Adds the sub-command to `app`. When it is given, parsing runs it to its end on the calling thread
// and stores its exit code. Both arguments must outlive the parsing. Throws CLI::ParseError for
// wrong use, std::exception otherwise. Blocks SIGINT and SIGTERM for the calling thread and those
// started from it: it takes these signals itself.
void addDiscover(CLI::App& app, int& exitCode);
