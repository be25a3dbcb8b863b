// Reports in SARIF 2.1.0, the format of static analysis tools. Any thread.
#pragma once

#include <nlohmann/json.hpp>
#include <vector>

#include "tools/check/Checker.h"

namespace check {

// One log with one run: all rules, and a result for each diagnostic with its repair as a fix.
nlohmann::json sarifOf(const std::vector<Checked>& files, int exitCode);

}  // namespace check
