// Whether the memory, the threads and the descriptors of a process grow from cycle to cycle: for
// each of them, the slope of the line that fits the samples best.
//
// Memory is measured twice: as the bytes that are allocated and not freed, and as resident memory,
// which changes by whole pages and follows later. gRPC frees some of its memory only after a stop,
// at its own pace, so single samples scatter. The slope does not.
//
// Threads: one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

#include "tests/proof/Proof.h"

namespace proof {

// A least squares line that keeps no points, so that a run of hours needs no memory for them.
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
  // The first `warmUp` samples do not count: caches fill, and gRPC starts its threads.
  explicit Trend(std::uint64_t warmUp) : warmUp_(warmUp) {}

  // Call this after each cycle. It waits until the number of threads is as low as it ever was.
  void sample();

  // All slopes, each with its limit, and the first and last sample of each line.
  std::vector<Measured> figures() const;

 private:
  const std::uint64_t warmUp_;
  std::uint64_t samples_ = 0;
  std::size_t fewestThreads_ = std::numeric_limits<std::size_t>::max();
  Line heap_, resident_, threads_, descriptors_;
};

}  // namespace proof
