// What gatewayctl says to a command line that it can't carry out. Any thread.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace manual {

// The problem in a sentence, with a suggestion for a mistyped option or sub-command. `app` is the
// parser that it concerns: of the sub-command that was named, or else of the program.
std::string describeWrongUse(const CLI::App& app, const CLI::Error& error);

}  // namespace manual
