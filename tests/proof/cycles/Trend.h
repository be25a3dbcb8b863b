// Whether what a process holds grows from one cycle to the next: memory, threads and descriptors,
// each as the slope of the line that fits the samples best.
//
// Memory is what the allocator has given and not got back, to the byte, and what the system counts
// as resident, which moves by pages and follows later. gRPC takes some of what it holds back behind
// a stop, at its own pace: single samples scatter, and the slope does not.
//
// Threads: one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>

namespace proof {

// A least squares line, one point at a time, so that a run of hours needs no memory for it.
class Line {
 public:
  void add(double x, double y);
  double slope() const;
  double first() const { return first_; }
  double last() const { return last_; }

 private:
  double count_ = 0, x_ = 0, y_ = 0, xx_ = 0, xy_ = 0;
  double first_ = 0, last_ = 0;
};

class Trend {
 public:
  // The first samples do not count: caches fill, and gRPC starts its threads.
  explicit Trend(std::uint64_t warmUp) : warmUp_(warmUp) {}

  // To be called after each cycle. Waits until gRPC's own threads are as few as they were.
  void sample();

  // Fails the test if one of the lines rises by more than its bound.
  void expectFlat() const;

  // All slopes and where the lines begin and end, for a row.
  std::string text() const;

 private:
  const std::uint64_t warmUp_;
  std::uint64_t samples_ = 0;
  std::size_t fewestThreads_ = std::numeric_limits<std::size_t>::max();
  Line heap_, resident_, threads_, descriptors_;
};

}  // namespace proof
