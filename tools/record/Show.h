// Shows a recording on standard output: a summary for people, or JSON lines. One thread.
#pragma once

#include <string>

namespace record {

// Returns the exit code. A recording that is cut is shown as far as it goes, with a warning. Throws
// std::runtime_error, with file and place, after showing what comes before any other damage.
int show(const std::string& path, bool json);

}  // namespace record
