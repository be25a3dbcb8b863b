// What --help prints: the manual of a sub-command, wrapped for the terminal. Any thread.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

#include "tools/manual/CommandLine.h"

namespace manual {

// Such as "gatewayctl host [OPTIONS] CONFIG".
std::string usageOf(const Command& command);

// Such as "gatewayctl-host - run the module in a stand-in for the engine".
std::string titleOf(const Command& command, const char* separator);

// The description and the sections. Their form is that of tools/common/ManualText.h.
std::string bodyOf(const Command& command);

std::string helpOf(const Command& command);

// Makes the parser print helpOf(), in the width of standard output.
class HelpFormatter final : public CLI::FormatterBase {
 public:
  std::string make_help(const CLI::App* app, std::string name,
                        CLI::AppFormatMode mode) const override;
};

}  // namespace manual
