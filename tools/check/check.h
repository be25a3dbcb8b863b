// gatewayctl check: says whether the module will accept a configuration, and explains why.
#pragma once

#include <CLI/CLI.hpp>

// Adds the sub-command. After it has run, `exitCode` holds the program's exit code: 0 accepted,
// 1 refused, 2 wrong use or a file that can't be read, 3 accepted with warnings under --strict.
// Throws CLI::ParseError for wrong use.
void addCheck(CLI::App& app, int& exitCode);
