// One cell of the table, tried: the simulator and the module in its stand-in host, each a process
// of its own, and a fault between them.
//
// Threads: a Trial lives and dies on one thread, as its processes do; several may run side by side.
#pragma once

#include <string>
#include <vector>

#include "tests/proof/network/Faults.h"

namespace network {

// What was seen.
struct Finding {
  std::vector<std::string> problems;  // a sentence each; empty if all held
  std::vector<double> retries;        // seconds from the end of a stream to its next attempt
  double stop = 0;                    // seconds that the stop took
  int moreThreads = 0;                // of the host, after the last fault as against before it
  double moreMemory = 0;              // likewise, MiB
  bool isMeasured = false;            // whether the two above are known: not of a stop
};

Finding tryOut(const Cell& cell);

}  // namespace network
