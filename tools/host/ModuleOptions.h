// The options that say which module to run: the same for each sub-command that runs one.
#pragma once

#include <CLI/CLI.hpp>

#include "tools/host/RunningModule.h"

namespace host {

// CONFIG, --module and --name. Sets their defaults in `setup`, which must outlive the parsing.
void addModuleOptions(CLI::App& command, Setup& setup);

// --reload, which stores whether it is given.
CLI::Option* addReloadOption(CLI::App& command, bool& reloads);

}  // namespace host
