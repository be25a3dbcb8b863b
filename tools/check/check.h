// gatewayctl check: tells what the module will make of a configuration.
#pragma once

#include <CLI/CLI.hpp>

// Adds the sub-command. When it has run, `exitCode` holds the program's exit code: 0 accepted,
// 1 refused, 2 wrong use or a file that can't be read, 3 accepted with warnings under --strict.
// Throws CLI::ParseError for wrong use.
void addCheck(CLI::App& app, int& exitCode);
