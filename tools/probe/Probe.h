// Runs the checks of a level against a server.
//
// Everything that a server could keep from coming has a limit (Limits), and a wait ends as soon as
// its purpose is fulfilled. A check whose precondition does not hold is skipped, so that one fault
// fails only the checks that it concerns.
//
// Threads: one at a time. The functions throw Interrupted when the user ends the program; the
// results have what was seen until then.
#pragma once

#include <string>

#include "tools/probe/Limits.h"
#include "tools/probe/Results.h"
#include "tools/probe/Waiter.h"

namespace probe {

struct Site {
  const Waiter& waiter;
  const Limits& limits;
  Results& results;
};

// Both add a result for every check of their service, up to the level of the results.
void probeMeters(const Site& site, const std::string& target);
void probeEngine(const Site& site, const std::string& target);

// ---- Shared by both -------------------------------------------------------------------------

// What was found at a target.
struct Contact {
  std::string peer;       // its address as gRPC names it
  std::string complaint;  // why it can't be reached; empty if it can
  double seconds = 0;     // until it answered
};

Contact contact(const Site& site, const std::string& target);

// A check that demands two pings in a row, and one that demands pings every ten seconds.
struct PingChecks {
  CheckId pings;
  CheckId steadyPings;
};
void probePings(const Site& site, const std::string& peer, const PingChecks& checks);

// "3 ms" or "1.5 s".
std::string timeText(double seconds);

}  // namespace probe
