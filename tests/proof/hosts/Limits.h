// Limits of the process that a proof runs in: on its descriptors and its threads.
//
// Threads: one sets limits; they hold for all.
#pragma once

#include <sys/resource.h>

#include <cstddef>

namespace proof {

// A soft limit while this lives.
class Limit {
 public:
  // No more than `room` further descriptors.
  static Limit onDescriptors(std::size_t room);
  // No more than `room` further threads. Call `countOwnThreads` first.
  static Limit onThreads(std::size_t room);

  ~Limit() { lift(); }
  Limit(const Limit&) = delete;
  Limit& operator=(const Limit&) = delete;

  void lift();

 private:
  Limit(__rlimit_resource resource, rlim_t most);

  const __rlimit_resource resource_;
  rlimit before_{};
};

// The kernel limits the threads of a user, and does not limit root's. Gives this process to a user
// who has no other, for good, but leaves it root's rights to files and children. Returns false if
// that is not permitted.
bool countOwnThreads();

// How this process ends if gRPC does not survive a limit.
enum GrpcEnds {
  GrpcAborted = 11,  // gRPC, or Abseil for it, has called abort
  GrpcWaits = 12,    // gRPC's shutdown has not returned for `grpcsPatience`
};
constexpr unsigned grpcsPatience = 10;  // seconds

// From here on, the process exits with one of these codes.
void exitIfGrpcFails();

// Returns when gRPC or anyone else has failed to get another socket.
class RefusedSocket {
 public:
  RefusedSocket();
  void await() const;

 private:
  const int before_;
};

}  // namespace proof
