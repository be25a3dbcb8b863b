// Makes allocations of the module fail, and counts the blocks that it holds. A program that links
// this replaces operator new, malloc and their companions.
//
// Only the requests of the module's own code count and fail (see ModuleCode.h). Those of the host,
// of the test and of libraries always succeed.
#pragma once

#include <cstddef>
#include <limits>
#include <vector>

#include "tests/support/ModuleCode.h"

// Fails chosen requests. The module must be loaded before this is made and while it lives.
class AllocationFault {
 public:
  enum class Lasting { Once, ForGood };
  enum class Covers { ThisThread, NoThreadYet };
  // What operator new throws: std::bad_alloc, or an int, which no handler of the module catches.
  enum class Throws { BadAlloc, Int };
  // A number that no request reaches, for counting only.
  static constexpr int never = std::numeric_limits<int>::max();

  // While this lives, the nth request of the threads that it covers fails (1: the next one), and
  // with ForGood all later ones, too: operator new throws, malloc returns null. It also covers each
  // thread that calls coverThisThread. For each thread, only the last cover counts.
  explicit AllocationFault(int nth, Lasting lasting = Lasting::Once,
                           Covers covers = Covers::ThisThread, Throws what = Throws::BadAlloc);
  ~AllocationFault();
  AllocationFault(const AllocationFault&) = delete;
  AllocationFault& operator=(const AllocationFault&) = delete;

  void coverThisThread();
  // Ends the failures, for all threads.
  void end();

  struct Allocation {
    bool failed;
    bool throws;  // operator new, in contrast to malloc
    Callers callers;
  };
  // The requests so far, in order.
  std::vector<Allocation> allocations() const;
  std::size_t requestCount() const;
  std::size_t failureCount() const;

  struct Plan;

 private:
  const LoadedModuleCode code_;
  Plan& plan_;
};

// While this lives, counts the blocks that the module's own code requests and has not released.
class OwnBlocks {
 public:
  OwnBlocks();
  ~OwnBlocks();
  OwnBlocks(const OwnBlocks&) = delete;
  OwnBlocks& operator=(const OwnBlocks&) = delete;

  std::size_t count() const;
  // The callers that requested each of these blocks.
  std::string text() const;
  // Waits until there are `count` blocks. False if the tests' patience runs out first.
  bool waitFor(std::size_t count) const;

 private:
  const LoadedModuleCode code_;
};
