// Tries one cell of the table: runs the simulator and the module in its stand-in host, lets the
// fault happen, and checks what must hold.
//
// Threads: any; several trials may run at a time.
#pragma once

#include <string>
#include <vector>

#include "tests/proof/network/Faults.h"

namespace network {

struct Finding {
  std::vector<std::string> problems;  // a sentence each; empty if everything held
  std::vector<double> retries;        // seconds from the end of a stream to its next attempt
  double stop = 0;                    // seconds that the stop took
  int moreThreads = 0;                // of the host, after the faults compared with before
  double moreMemory = 0;              // likewise, in MiB
  bool isMeasured = false;            // whether the two above were measured: not at a stop
};

Finding tryOut(const Cell& cell);

}  // namespace network
