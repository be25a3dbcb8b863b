// A manual as a man page, in the source form of scdoc. Any thread.
#pragma once

#include <string>
#include <string_view>

#include "tools/manual/CommandLine.h"

namespace manual {

// Plain text of the form that tools/common/ManualText.h describes, from its description on.
std::string scdocOf(std::string_view text);

// The page of section 1, such as gatewayctl-host(1).
std::string manPageOf(const Command& command, std::string_view version);

}  // namespace manual
