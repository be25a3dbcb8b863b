// A plan of faults: what goes wrong, and when. Plans are read from lines such as
//
//   at 2: end fast UNAVAILABLE
//   every 5..10 for 2: freeze meters
//
// This file reads plans and computes their moments; the Saboteur carries them out.
//
// Any thread. Errors are std::invalid_argument, or std::runtime_error for a file. Their what()
// names the wrong word and says what to write instead.
#pragma once

#include <grpcpp/support/status.h>

#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "tools/sim/Chance.h"
#include "tools/sim/FaultKinds.h"

namespace sim {

// When a fault begins, in seconds since the simulator started, and how long it lasts.
struct FaultTimes {
  double first = 0;  // "at": the moment; "every": the shortest interval
  double last = 0;   // "at": the same; "every": the longest interval
  bool repeats = false;
  std::optional<double> duration{};  // nothing: until something else ends it

  bool operator==(const FaultTimes&) const = default;
};

struct Fault {
  FaultTimes times;
  FaultKind kind = FaultKind::Normal;
  std::vector<Subject> subjects;  // in the order of Subject
  double number = 0;              // the argument, if it is one number
  Range range;                    // the argument, if it may be several: seconds, or a count
  grpc::StatusCode status = grpc::StatusCode::OK;
  std::string argument;           // as reports show it; empty if there is none
  std::optional<double> percent;  // the chance that "with" gives

  // From 0 to 1.
  double chance() const { return percent.value_or(100) / 100; }

  // Whether this fault needs a relay in front of `address`.
  bool needsRelay(Subject address) const;
};

using FaultPlan = std::vector<Fault>;

// Reads one line, "WHEN: FAULT [SUBJECT] [ARGUMENT] [with CHANCE]". Without a subject the fault
// acts on every subject that it can act on.
Fault parseFault(std::string_view line);

// The same without WHEN, for a fault that happens at once.
Fault parseImmediateFault(std::string_view line);

// Reads a file with one fault per line. Ignores empty lines and what follows a #. The error
// has a line for each wrong line, which begins with "FILE:LINE: ".
FaultPlan readFaultPlan(const std::string& path);

// The table of kinds, as entries of the manual. "*" marks those that last, "%" those that strike
// each message or call with their chance.
std::string faultManual();

// The moments at which a fault of a plan begins, one after the other. They depend only on the seed,
// the fault's place in the plan, its times and its chance.
class FaultMoments {
 public:
  FaultMoments(const Fault& fault, std::uint64_t seed, std::size_t place);

  // In seconds since the start; nothing if the fault does not come again.
  std::optional<double> next();

 private:
  FaultTimes times_;
  double chance_;  // of each moment
  std::mt19937_64 random_;
  double now_ = 0;
  bool over_ = false;
};

}  // namespace sim
