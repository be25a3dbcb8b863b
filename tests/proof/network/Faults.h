// The table of faults, of the parts of the gateway that they act on, and of the moments at which
// they do.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "tests/proof/network/Wire.h"
#include "tools/sim/FaultPlan.h"

namespace network {

// A conversation of the gateway with a server.
enum class Part { Fast, Slow, SetParams };

enum class Moment {
  Running,   // the stream is open; a SetParams call is in flight
  Waiting,   // the stream waits for its retry; SetParams has no connection
  Stopping,  // the stop begins at the same moment; a SetParams call is in flight
  Flushing,  // the stop has begun, and waits for the other stream's retry
};

// What happens to an open stream.
enum class Effect {
  None,            // it continues when the fault is over, or earlier
  EndsStream,      // it ends, and the other one continues
  EndsConnection,  // both streams end
  MayEndBoth,      // both end if the system gives up the connection, and continue otherwise
  EndsWhenOver,    // it ends when the fault is over, and the other one continues
};

struct Fault {
  std::string name;
  std::optional<sim::FaultKind> kind;  // a fault of the simulator; nothing for one of the wire
  Conditions conditions;               // of the wire
  Effect effect = Effect::None;
  bool lasts = true;             // until it is ended
  bool silences = false;         // while it lasts, nothing arrives on the stream
  bool endsCall = false;         // a SetParams call in flight ends before the fault does
  std::chrono::seconds held{2};  // how long it lasts at least

  bool isOfWire() const { return !kind; }
  // Too long for a run among all tests.
  bool isLong() const { return held > std::chrono::seconds(10); }
  bool canActOn(Part part) const;
  // The simulator's commands that begin the fault and that end it.
  std::string lineFor(Part part) const;
  std::string endLineFor(Part part) const;
};

std::span<const Fault> faults();

// A fault of a part at a moment.
struct Cell {
  const Fault* fault;
  Part part;
  Moment moment;
  std::uint64_t seed;
  int rounds = 1;  // how many times in a row the same gateway meets the fault
};

std::string nameOf(const Cell& cell);

// Every cell of the table once, without a seed.
std::vector<Cell> allCells();

}  // namespace network
