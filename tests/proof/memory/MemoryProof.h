// Helpers for proofs that take memory away from the loaded module: each allocation of an operation
// fails in turn.
//
// Only allocations of the module's own code fail, including those that it makes through the C and
// C++ libraries. It uses operator new and malloc only. Allocations of gRPC, protobuf and the
// generated messages succeed, because gRPC ends the process when one of its own fails.
#pragma once

#include <algorithm>
#include <string>

#include "tests/module/grpc-gateway/flows/FlowTest.h"
#include "tests/proof/Proof.h"
#include "tests/support/AllocationFault.h"

using Lasting = AllocationFault::Lasting;
using Allocation = AllocationFault::Allocation;

constexpr char part[] = "Out of memory";
constexpr char eachAllocation[] =
    "allocations, each failing by itself and together with all later ones";

inline std::string nameOf(Lasting lasting) {
  return lasting == Lasting::Once ? "once" : "for good";
}

// What a failed request leads to.
enum class Outcome {
  Raises,          // an exception
  BadLine,         // a line of the configuration that can't be used
  BadFile,         // a configuration that can't be read
  DedicatedFails,  // either of these in a dedicated file, without which the start still succeeds
  Nothing,         // no effect, since the library that asked can do without
  Unknown,
};

inline Outcome outcomeOf(const Allocation& request) {
  const Callers& callers = request.callers;
  // A conversion catches every exception, also one thrown while another was being made. The
  // translation of an exception's message does without memory.
  if (callers.include("__throw_")) return Outcome::Nothing;
  if (request.throws) return Outcome::Raises;
  const bool isNested = callers.count("ini_parse") > 1;
  if (callers.include("c_shquote_parse_argv")) {
    return isNested ? Outcome::DedicatedFails : Outcome::BadLine;
  }
  // A file without a buffer is read byte by byte, and exceptions have reserve memory.
  if (callers.include("fgets") || callers.include("__cxa_allocate_exception")) {
    return Outcome::Nothing;
  }
  // The reader's only other request is the file itself.
  if (callers.innermostOwn() == "ini_parse") {
    return isNested ? Outcome::DedicatedFails : Outcome::BadFile;
  }
  return Outcome::Unknown;
}

// Base is GatewayTest, or FlowTest if the test has servers.
template <class Base>
class WithoutMemory : public Base {
 protected:
  void expectNoOwnBlocks() const { EXPECT_EQ(ownBlocks.count(), 0u) << ownBlocks.text(); }

  int count(const std::string& line) const {
    const Journal lines = this->log();
    return static_cast<int>(std::count(lines.begin(), lines.end(), line));
  }

  const OwnBlocks ownBlocks;
};
