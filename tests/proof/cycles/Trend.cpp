#include "tests/proof/cycles/Trend.h"

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <thread>

#include "tools/common/ProcessUse.h"

// Only present in the sanitizers' builds, which replace the system's allocator.
extern "C" __attribute__((weak)) size_t __sanitizer_get_current_allocated_bytes();

namespace proof {
namespace {

// Bytes per cycle. The context of one payload alone is larger than this. A short run has too few
// samples to distinguish so little from memory that gRPC has not freed yet.
constexpr double heapBoundFull = 200;
constexpr double heapBoundQuick = 4000;

// In a process with the address sanitizer, the loader keeps about 4,200 bytes for each time that a
// library with gRPC's dependencies is loaded and unloaded, even if nothing of it is called.
constexpr double sanitizedLoad = 5000;

// A page in four cycles. Not checked in short runs, nor with a sanitizer's allocator.
constexpr double residentBoundFull = 1024;

// One more thread or descriptor in a hundred cycles, or in ten.
constexpr double countBoundFull = 0.01;
constexpr double countBoundQuick = 0.1;

double heapBytes() {
  if (__sanitizer_get_current_allocated_bytes != nullptr) {
    return static_cast<double>(__sanitizer_get_current_allocated_bytes());
  }
  const auto heap = mallinfo2();
  return static_cast<double>(heap.uordblks + heap.hblkhd);
}

// With an arena for each thread, the allocator would keep free memory for every thread that there
// ever was, and resident memory would say more about that than about memory in use.
const int oneArena = mallopt(M_ARENA_MAX, 1);

// Without the memory that the allocator keeps free.
double residentBytes() {
  malloc_trim(0);
  std::ifstream file("/proc/self/statm");
  double size = 0;
  double resident = 0;
  file >> size >> resident;
  return resident * static_cast<double>(sysconf(_SC_PAGESIZE));
}

// On a busy machine gRPC starts threads to clean up after a stop, and ends them when they are idle.
// No event announces that.
void awaitThreads(std::size_t most) {
  const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  constexpr std::chrono::milliseconds aMoment(1);
  while (tools::processUse().threads > most && std::chrono::steady_clock::now() < giveUp) {
    std::this_thread::sleep_for(aMoment);
  }
}

Measured firstAndLast(const char* what, const Line& line, double factor, const char* unit) {
  const auto [least, most] = std::minmax({line.first() / factor, line.last() / factor});
  return {what, least, most, ".1f", unit};
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

std::vector<Measured> Trend::figures() const {
  const bool isSanitized = __sanitizer_get_current_allocated_bytes != nullptr;
  const double heapBound =
      (isFull() ? heapBoundFull : heapBoundQuick) + (isSanitized ? sanitizedLoad : 0);
  const double countBound = isFull() ? countBoundFull : countBoundQuick;
  auto resident = measured("resident memory per cycle", resident_.slope(), "+.1f", "B");
  if (isFull() && !isSanitized) resident.limit = residentBoundFull;
  return {
      measured("heap per cycle", heap_.slope(), "+.1f", "B").within(heapBound),
      resident,
      measured("threads per cycle", threads_.slope(), "+.4f", "").within(countBound),
      measured("descriptors per cycle", descriptors_.slope(), "+.4f", "").within(countBound),
      firstAndLast("heap", heap_, 1e3, "KB"),
      firstAndLast("resident memory", resident_, 1e6, "MB"),
      firstAndLast("threads", threads_, 1, ""),
      firstAndLast("descriptors", descriptors_, 1, ""),
  };
}

}  // namespace proof
