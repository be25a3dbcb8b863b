// The vocabulary of proofs that take memory away from the loaded module, one allocation after the
// other, until an operation comes through without having noticed.
//
// What fails is what the module's own code asks for, by itself or through the C and the C++
// library: operator new and malloc, which is all that it uses. What gRPC and protobuf ask for, the
// generated messages included, is left alone: gRPC ends the process when it gets nothing.
#pragma once

#include <algorithm>
#include <string>

#include "tests/module/grpc-gateway/flows/FlowTest.h"
#include "tests/proof/Proof.h"
#include "tests/support/AllocationFault.h"

using Lasting = AllocationFault::Lasting;
using Request = AllocationFault::Request;

constexpr char part[] = "Out of memory";

inline std::string nameOf(Lasting lasting) {
  return lasting == Lasting::Once ? "once" : "for good";
}

// What a failed request comes to.
enum class Outcome {
  Raises,          // an exception, for whoever catches it next
  BadLine,         // a line of the configuration that can't be used
  BadFile,         // a configuration that can't be read
  DedicatedFails,  // the same of a dedicated file, which the configuration gets over
  Nothing,         // the library that asked gets along without
  Unknown,
};

inline Outcome outcomeOf(const Request& request) {
  const Callers& callers = request.callers;
  // An exception of a conversion is caught around it, whatever it has become.
  if (request.throws) return callers.include("__throw_") ? Outcome::Nothing : Outcome::Raises;
  const bool isNested = callers.count("ini_parse") > 1;
  if (callers.include("c_shquote_parse_argv")) {
    return isNested ? Outcome::DedicatedFails : Outcome::BadLine;
  }
  // A file without a buffer is read byte by byte; exceptions have a reserve of their own.
  if (callers.include("fgets") || callers.include("__cxa_allocate_exception")) {
    return Outcome::Nothing;
  }
  // What else the reader asks for is a file.
  if (callers.innermostOwn() == "ini_parse") {
    return isNested ? Outcome::DedicatedFails : Outcome::BadFile;
  }
  return Outcome::Unknown;
}

// Base: GatewayTest, or FlowTest where there are servers.
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
