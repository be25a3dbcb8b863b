// Whether the memory, the threads and the descriptors of a process grow from sample to sample: for
// each of them, the slope of the line that fits the samples best.
//
// Memory is measured twice: as the bytes that are allocated and not freed, and as resident memory,
// which changes by whole pages and follows later. gRPC frees some of its memory late, at its own
// pace, so single samples scatter. The slope does not.
//
// Threads: one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <utility>
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

// The steepest slopes that still pass. Resident memory is not judged without a limit, nor with a
// sanitizer's allocator.
struct TrendLimits {
  double heap;                     // bytes per sample
  std::optional<double> resident;  // the same
  double threads;                  // per sample
  double descriptors;              // the same
};

class Trend {
 public:
  // The first `warmUp` samples do not count: caches fill, and gRPC starts its threads. `period` is
  // what lies between two samples, such as "cycle"; figures name it.
  Trend(std::uint64_t warmUp, std::string period) : warmUp_(warmUp), period_(std::move(period)) {}

  // Whether a sanitizer has replaced the system's allocator.
  static bool isSanitized();

  // Waits until the number of threads is as low as at any sample so far.
  void awaitFewThreads() const;

  void sample();
  // How many samples count.
  std::uint64_t samples() const { return samples_ < warmUp_ ? 0 : samples_ - warmUp_; }

  // All slopes, each with its limit, and the first and last sample of each line.
  std::vector<Measured> figures(const TrendLimits& limits) const;

 private:
  const std::uint64_t warmUp_;
  const std::string period_;
  std::uint64_t samples_ = 0;
  std::size_t fewestThreads_ = std::numeric_limits<std::size_t>::max();
  Line heap_, resident_, threads_, descriptors_;
};

}  // namespace proof
