#include "tests/proof/cycles/Trend.h"

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <thread>

#include "tests/proof/Proof.h"
#include "tools/common/ProcessUse.h"

// Absent but for the sanitizers' builds, whose allocator stands in front of the system's.
extern "C" __attribute__((weak)) size_t __sanitizer_get_current_allocated_bytes();

namespace proof {
namespace {

// A payload has a context of more than this, and each of its other parts is a block of its own. A
// short run has too few samples to tell so little from what gRPC has not yet taken back.
constexpr double heapBoundFull = 200;
constexpr double heapBoundQuick = 4000;

// A page in four cycles. Few cycles tell nothing of it, as does a sanitizer's allocator.
constexpr double residentBoundFull = 1024;

// One thread or descriptor more in a hundred cycles, or in ten.
constexpr double countBoundFull = 0.01;
constexpr double countBoundQuick = 0.1;

double heapBytes() {
  if (__sanitizer_get_current_allocated_bytes != nullptr) {
    return static_cast<double>(__sanitizer_get_current_allocated_bytes());
  }
  const auto heap = mallinfo2();
  return static_cast<double>(heap.uordblks + heap.hblkhd);
}

// With an arena for each thread, the allocator would hold free what any of them once needed, for as
// many threads as there may be: of that, resident memory would tell, and not of what is held.
const int oneArena = mallopt(M_ARENA_MAX, 1);

// Without what the allocator holds free.
double residentBytes() {
  malloc_trim(0);
  std::ifstream file("/proc/self/statm");
  double size = 0;
  double resident = 0;
  file >> size >> resident;
  return resident * static_cast<double>(sysconf(_SC_PAGESIZE));
}

// On a busy machine gRPC makes threads for what it takes back behind a stop, and lets them end when
// they have nothing to do. Nobody is told of their end.
void awaitThreads(std::size_t most) {
  const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  constexpr std::chrono::milliseconds aMoment(1);
  while (tools::processUse().threads > most && std::chrono::steady_clock::now() < giveUp) {
    std::this_thread::sleep_for(aMoment);
  }
}

std::string courseText(const char* what, const Line& line, double unit) {
  return fmt::format("{} {:.1f} to {:.1f}", what, line.first() / unit, line.last() / unit);
}

}  // namespace

void Line::add(double x, double y) {
  if (count_ == 0) first_ = y;
  last_ = y;
  const double above = y - first_;
  ++count_;
  x_ += x;
  y_ += above;
  xx_ += x * x;
  xy_ += x * above;
}

double Line::slope() const {
  const double spread = count_ * xx_ - x_ * x_;
  return spread == 0 ? 0 : (count_ * xy_ - x_ * y_) / spread;
}

void Trend::sample() {
  awaitThreads(fewestThreads_);
  const auto use = tools::processUse();
  fewestThreads_ = std::min(fewestThreads_, use.threads);
  if (samples_++ < warmUp_) return;
  const auto x = static_cast<double>(samples_ - warmUp_);
  heap_.add(x, heapBytes());
  resident_.add(x, residentBytes());
  threads_.add(x, static_cast<double>(use.threads));
  descriptors_.add(x, static_cast<double>(use.descriptors));
}

void Trend::expectFlat() const {
  const double heapBound = isFull() ? heapBoundFull : heapBoundQuick;
  const double countBound = isFull() ? countBoundFull : countBoundQuick;
  EXPECT_LT(heap_.slope(), heapBound) << text();
  if (isFull() && __sanitizer_get_current_allocated_bytes == nullptr) {
    EXPECT_LT(resident_.slope(), residentBoundFull) << text();
  }
  EXPECT_LT(threads_.slope(), countBound) << text();
  EXPECT_LT(descriptors_.slope(), countBound) << text();
}

std::string Trend::text() const {
  return fmt::format(
      "a cycle: heap {:+.1f} B, resident {:+.1f} B, threads {:+.4f}, descriptors {:+.4f}; {}; {}; "
      "{}; {}",
      heap_.slope(), resident_.slope(), threads_.slope(), descriptors_.slope(),
      courseText("heap KB", heap_, 1e3), courseText("resident MB", resident_, 1e6),
      courseText("threads", threads_, 1), courseText("descriptors", descriptors_, 1));
}

}  // namespace proof
