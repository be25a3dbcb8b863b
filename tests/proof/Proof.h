// What all proofs share: how much to try, the seed, and the row that each case adds to the table of
// docs/reliability.md.
//
// A proof is a test whose label ends in "-proof". It tries the same thing many times. On its own
// and among all other tests it takes seconds; scripts/prove asks for more by environment variables:
//
//   GATEWAY_PROOF_SCALE    "quick" or "full" (quick)
//   GATEWAY_PROOF_SOAK     for how many minutes a run without an end of its own lasts (0)
//   GATEWAY_PROOF_SEED     the seed of an earlier run that is to be repeated
//   GATEWAY_PROOF_ROWS     a folder to which each row is written as a file; rows are always printed
//
// Threads: any.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace proof {

// Numbers and what they count, which is a plural: {"stops under load", 200}. The table adds up the
// counts of a group.
using Counts = std::vector<std::pair<std::string, std::uint64_t>>;

// Values that a case measured. The table has the least and the most of a group. With a limit, they
// are judged; without one they are for information.
struct Measured {
  std::string name;             // such as "longest stop"
  std::optional<double> least;  // nothing where only the most is of interest
  double most;
  std::string format;  // of all numbers, as in Python: ".2f"
  std::string unit;
  std::optional<double> limit = {};  // `report` fails the test if `most` exceeds it

  Measured within(double bound) && {
    limit = bound;
    return std::move(*this);
  }
  Measured within(std::chrono::milliseconds bound) && {
    return std::move(*this).within(static_cast<double>(bound.count()));
  }
};

Measured measured(const std::string& name, double value, const std::string& format,
                  const std::string& unit);
Measured mostOf(const std::string& name, double value, const std::string& format,
                const std::string& unit);
// Whole milliseconds.
Measured mostOf(const std::string& name, std::chrono::milliseconds time);

// A case. The table shows all cases of a group in one row; docs/reliability.json keeps each.
struct Row {
  std::string part;   // the heading above the group, such as "Out of memory"
  std::string group;  // such as "a stream in the state Reading"
  std::string what;   // the case; empty if it is the only one of its group
  Counts tried;
  std::string held;  // what held every time, without numbers
  Counts counted = {};
  std::vector<Measured> measured = {};
};

// Prints the row and keeps it for the table. Fails the running test if a limit is exceeded, and
// marks the row as failed if that test has failed.
void report(const Row& row);

bool isFull();

// How often to try, or how much: `quick` among all tests, `full` for scripts/prove.
std::uint64_t scaled(std::uint64_t quick, std::uint64_t full);

std::chrono::minutes soak();

// The seed of this process, from the environment or random. The first call prints it.
std::uint64_t seed();

}  // namespace proof
