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

// The module must be loaded by then, and as long as this lives.
class AllocationFault {
 public:
  enum class Lasting { Once, ForGood };
  enum class Covers { ThisThread, NoThreadYet };
  // What operator new throws: std::bad_alloc, or an int, which no handler of the module catches.
  enum class Throws { BadAlloc, Int };
  // A number that no request reaches: to count alone.
  static constexpr int never = std::numeric_limits<int>::max();

  // While it lives, the nth request of the threads that it covers (1: the next one) fails, and if
  // for good, all that follow, too: operator new throws, malloc gives null. Covers also any thread
  // on which coverThisThread is called; a thread is under one cover, the last.
  explicit AllocationFault(int nth, Lasting lasting = Lasting::Once,
                           Covers covers = Covers::ThisThread, Throws what = Throws::BadAlloc);
  ~AllocationFault();
  AllocationFault(const AllocationFault&) = delete;
  AllocationFault& operator=(const AllocationFault&) = delete;

  void coverThisThread();
  // Memory is back, for all threads.
  void end();

  struct Allocation {
    bool failed;
    bool throws;  // operator new, in contrast to malloc
    Callers callers;
  };
  // So far, in their order.
  std::vector<Allocation> allocations() const;
  std::size_t requestCount() const;
  std::size_t failureCount() const;

  struct Plan;

 private:
  const LoadedModuleCode code_;
  Plan& plan_;
};

// While it lives, the module's own blocks are counted: those that it takes and does not give back.
class OwnBlocks {
 public:
  OwnBlocks();
  ~OwnBlocks();
  OwnBlocks(const OwnBlocks&) = delete;
  OwnBlocks& operator=(const OwnBlocks&) = delete;

  std::size_t count() const;
  // Who took each of them.
  std::string text() const;
  // Returns when there are as many; false if the patience of tests has passed.
  bool waitFor(std::size_t count) const;

 private:
  const LoadedModuleCode code_;
};
