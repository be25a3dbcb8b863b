// The command line of `gatewayctl sim`: its options, what they accept, and the text of its help.
//
// Threads: the one that parses the command line.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

#include "tools/sim/Settings.h"

namespace sim {

// Adds all options to the sub-command. Parsing checks their values and stores them in `settings`,
// which must outlive it.
void addOptions(CLI::App& sim, Settings& settings);

// The help's text after the options.
std::string manual();

}  // namespace sim
