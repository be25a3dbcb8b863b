// The files that a configuration consists of. One thread at a time.
#pragma once

#include <map>
#include <optional>
#include <string>

namespace tools {

// Texts by path; nothing for a file that can't be read.
using ConfigFiles = std::map<std::string, std::optional<std::string>>;

// The configuration itself, and each dedicated file that it names, directly or through another.
// Also names the paths whose mere existence decides whether a dedicated file is read.
ConfigFiles filesOf(const std::string& config);

}  // namespace tools
