// What is to go wrong, and when: a plan of faults, read from lines such as
//
//   at 2: end fast UNAVAILABLE
//   every 5..10 for 2: freeze meters
//
// Here a plan is only read, and its moments are worked out; Saboteur carries it out.
//
// Any thread. Errors are std::invalid_argument, or std::runtime_error for a file; what() names the
// word that is wrong and what would be right.
#pragma once

#include <grpcpp/support/status.h>

#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "tools/sim/FaultKinds.h"

namespace sim {

// When a fault begins, in seconds from the simulator's begin, and how long it lasts.
struct FaultTimes {
  double first = 0;  // "at": the one moment; "every": the shortest time between two
  double last = 0;   // "every": the longest; else the same
  bool repeats = false;
  std::optional<double> duration{};  // what lasts without one lasts on

  bool operator==(const FaultTimes&) const = default;
};

struct Fault {
  FaultTimes times;
  FaultKind kind = FaultKind::Normal;
  std::vector<Subject> subjects;  // in the order of Subject
  double number = 0;              // the argument, where it is a number
  grpc::StatusCode status = grpc::StatusCode::OK;
  std::string argument;  // as it is told; empty for none

  // Whether it takes a relay in front of an address to do it.
  bool needsRelay(Subject address) const;
};

using FaultPlan = std::vector<Fault>;

// One line, "WHEN: FAULT [SUBJECT] [ARGUMENT]". Without a subject it befalls all that it can.
Fault parseFault(std::string_view line);

// The same without WHEN, of a fault that is to happen at once.
Fault parseFaultOfNow(std::string_view line);

// Of a file: a line each; empty lines and what follows a # do not count. An error begins with
// "FILE:LINE: ".
FaultPlan readFaultPlan(const std::string& path);

// The grammar and the table of kinds, for people.
std::string faultManual();

// The moments at which a fault of a plan begins, one after the other: with equal seeds, equal
// places in the plan and equal times they are the same.
class FaultMoments {
 public:
  FaultMoments(const FaultTimes& times, std::uint64_t seed, std::size_t place);

  // In seconds from the begin; nothing if it does not come again.
  std::optional<double> next();

 private:
  FaultTimes times_;
  std::mt19937_64 random_;
  double now_ = 0;
  bool over_ = false;
};

}  // namespace sim
