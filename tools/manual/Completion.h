// Scripts that complete command lines of gatewayctl in a shell: sub-commands, options, and values
// that are files or words of a list.
//
// Any thread.
#pragma once

#include <string>

#include "tools/manual/CommandLine.h"

namespace manual {

std::string bashCompletion(const Command& program);
std::string fishCompletion(const Command& program);
std::string zshCompletion(const Command& program);

}  // namespace manual
