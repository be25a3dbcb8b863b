// The table of what can go wrong, of the parts of the gateway that it can befall, and of the
// moments at which it does.
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
  Running,   // the stream runs; a SetParams call is in flight
  Waiting,   // the stream waits for its retry; SetParams has no connection
  Stopping,  // the stop begins in the same moment; a SetParams call is in flight
  Flushing,  // the stop has begun, and the other stream's retry holds it up
};

// What becomes of a stream that runs.
enum class Effect {
  None,            // it goes on when the fault is over, if not before
  EndsStream,      // it ends, and the other one goes on
  EndsConnection,  // both streams end
  MayEndBoth,      // the system may give the connection up, and else goes on when the fault is over
  EndsWhenOver,    // it ends when the fault is over, and the other one goes on
};

struct Fault {
  std::string name;
  std::optional<sim::FaultKind> kind;  // of the simulator's; else it is one of the wire
  Weather weather;                     // of the wire
  Effect effect = Effect::None;
  bool lasts = true;      // until it is taken back
  bool silences = false;  // while it lasts nothing arrives on the stream
  bool endsCall = false;  // a SetParams call in flight ends, and not only when the fault is over
  std::chrono::seconds held{2};  // how long it lasts at least

  bool isOfWire() const { return !kind; }
  // Too long for a run among all tests.
  bool isLong() const { return held > std::chrono::seconds(10); }
  bool canBefall(Part part) const;
  // As the simulator is told, and the end of what lasts.
  std::string lineFor(Part part) const;
  std::string endLineFor(Part part) const;
};

std::span<const Fault> faults();

// One thing to try.
struct Cell {
  const Fault* fault;
  Part part;
  Moment moment;
  std::uint64_t seed;
  int rounds = 1;  // how often the fault comes, one after the other, to the same gateway
};

std::string nameOf(const Cell& cell);

// All of the table, once, without seeds.
std::vector<Cell> allCells();

}  // namespace network
