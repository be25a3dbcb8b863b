// The way through a configuration: its lines, and those of the dedicated files at their place, in
// the order in which the module reads them.
//
// The module reads a dedicated file within the reading of the one that names it, without a limit.
// Here the files that are open stand in a list, so that one which names itself is found.
//
// Threads: one at a time.
// Memory: one chunk for each open file, and what Findings and ConfigurationRules keep.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>

#include "tools/check/Findings.h"

namespace check {

// The main file can't be read, or is more than can be checked. Its what() says why, without the
// name of the file.
struct UncheckableFile : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct WalkLimits {
  std::size_t depth = 100;                   // dedicated files within each other
  std::size_t files = 1000;                  // dedicated files at all
  std::size_t bytes = std::size_t{4} << 30;  // in them
  std::size_t entries = 1000000;
};

// Whether the module would finish reading the configuration. If not, it must not be asked.
enum class Reading { Finite, Endless };

// Looks at the file at `path`, which messages call `name`. Throws UncheckableFile.
Reading walk(const std::string& path, const std::string& name, Findings& findings,
             const WalkLimits& limits = {});

}  // namespace check
