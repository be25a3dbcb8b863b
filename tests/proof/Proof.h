// What every proof shares: how much to try, the seed, and the row of the table it ends in.
//
// A proof is a test of the label "proof" that tries the same thing many times over. It runs in
// seconds by itself and among all other tests; scripts/prove asks for more by the environment:
//
//   GATEWAY_PROOF_SCALE    "quick" (also when absent) or "full"
//   GATEWAY_PROOF_SOAK     minutes that a run without an end of its own shall last; 0 when absent
//   GATEWAY_PROOF_SEED     the seed of an earlier run, to see it again
//   GATEWAY_PROOF_ROWS     a folder where each row becomes a file; rows are only printed without it
//
// Threads: any.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace proof {

// One line of the table.
struct Row {
  std::string part;   // the heading it stands under, such as "Out of memory"
  std::string what;   // what was done, such as "start with a full configuration"
  std::string tried;  // how often, with its unit, such as "412 allocations, each failing once"
  std::string held;   // what was seen to hold, with figures
};

// Prints the row and keeps it for the table. A test that has failed by now says so in the row.
void report(const Row& row);

bool isFull();

// How often or how much: the one number for a run among all tests, the other for scripts/prove.
std::uint64_t scaled(std::uint64_t quick, std::uint64_t full);

std::chrono::minutes soak();

// Of this process: from the environment or chosen at random; printed when it is first asked for.
std::uint64_t seed();

}  // namespace proof
