// How a server of the measurements ends: with its input, so that none outlives the script that
// started it, however that ends.
#pragma once

#include <unistd.h>

#include <cstdlib>

namespace bench {

// Returns never: the process ends, and takes nothing down.
[[noreturn]] inline void endWithInput() {
  char byte = 0;
  while (read(STDIN_FILENO, &byte, 1) > 0) {
  }
  std::_Exit(0);
}

}  // namespace bench
