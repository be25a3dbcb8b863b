// The command line of `gatewayctl sim`: its options, what they accept, and its manual.
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

// manual.txt with the tables of faults and commands in place.
std::string manual();

}  // namespace sim
