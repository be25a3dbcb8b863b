// Makes one allocation of the module fail. A program that links this replaces operator new.
#pragma once

// While it lives, the nth operator new (1: the next one) that the module calls directly on this
// thread throws std::bad_alloc. Allocations of the host, of the test and of libraries go on.
class AllocationFault {
 public:
  explicit AllocationFault(int nth);
  ~AllocationFault();
  AllocationFault(const AllocationFault&) = delete;
  AllocationFault& operator=(const AllocationFault&) = delete;
};
