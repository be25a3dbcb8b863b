// Judges a configuration: applies the rules to each line, and collects what they find.
// Threads: one at a time. Memory: what Walk, Configuration and Findings keep.
#pragma once

#include <string>

#include "tools/check/Findings.h"
#include "tools/check/Walk.h"

namespace check {

// Whether the module would finish reading the configuration. If not, do not let it start.
enum class Reading { Finite, Endless };

// Judges the file at `path` and adds what is wrong to `findings`. Messages call the file `name`.
// Throws UncheckableFile.
Reading judge(const std::string& path, const std::string& name, const WalkLimits& limits,
              Findings& findings);

}  // namespace check
