// Reads a configuration in the module's order: the lines of a dedicated file come at the File line
// that names it.
//
// The module nests dedicated files without a limit. Here a list holds the open files, which shows
// when a file includes itself.
//
// Threads: one at a time. Memory: one chunk for each open file, and what Findings and
// ConfigurationRules keep.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>

#include "tools/check/Findings.h"

namespace check {

// The main file can't be read, or is too large to be checked. what() says why, without the name of
// the file.
struct UncheckableFile : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct WalkLimits {
  std::size_t depth = 100;                   // of nested dedicated files
  std::size_t files = 1000;                  // dedicated files in all
  std::size_t bytes = std::size_t{4} << 30;  // in all dedicated files, or in the main file
  std::size_t entries = 1000000;
};

// Whether the module would finish reading the configuration. If not, do not let it start.
enum class Reading { Finite, Endless };

// Checks the file at `path` and adds what is wrong to `findings`. Messages call the file `name`.
// Throws UncheckableFile.
Reading walk(const std::string& path, const std::string& name, Findings& findings,
             const WalkLimits& limits = {});

}  // namespace check
