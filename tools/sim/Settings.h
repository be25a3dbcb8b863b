// The settings of one run of the simulator, from the command line.
#pragma once

#include <optional>
#include <string>

#include "tools/common/HttpAddress.h"
#include "tools/sim/FaultPlan.h"
#include "tools/sim/Player.h"
#include "tools/sim/Replay.h"
#include "tools/sim/Simulator.h"

namespace sim {

struct Settings {
  Addresses addresses{.meters = "127.0.0.1:50005", .engine = "127.0.0.1:50006"};
  PingPolicy pings;
  PlayerSettings playing;
  ReplaySettings replay;                      // instead of signals
  std::string config;                         // a file whose meter keys play, too
  double heartbeat = 0;                       // in seconds; 0 for none
  FaultPlan faults;                           // from the command line
  std::string faultPlan;                      // a file with more faults
  bool liveFaults = false;                    // take more faults from standard input
  std::optional<tools::HttpAddress> control;  // where to serve the control interface
  bool json = false;
  std::optional<double> limit;  // of the run, in seconds
  bool commands = false;
};

}  // namespace sim
