#include "tests/proof/Trend.h"

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

double heapBytes() {
  if (Trend::isSanitized()) {
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

bool Trend::isSanitized() {
  return __sanitizer_get_current_allocated_bytes != nullptr;
}

// On a busy machine gRPC starts threads to clean up after a stop, and ends them when they are idle.
// No event announces that.
void Trend::awaitFewThreads() const {
  const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  constexpr std::chrono::milliseconds aMoment(1);
  while (tools::processUse().threads > fewestThreads_ &&
         std::chrono::steady_clock::now() < giveUp) {
    std::this_thread::sleep_for(aMoment);
  }
}

void Trend::sample() {
  const auto use = tools::processUse();
  fewestThreads_ = std::min(fewestThreads_, use.threads);
  if (samples_++ < warmUp_) return;
  const auto x = static_cast<double>(samples_ - warmUp_);
  heap_.add(x, heapBytes());
  resident_.add(x, residentBytes());
  threads_.add(x, static_cast<double>(use.threads));
  descriptors_.add(x, static_cast<double>(use.descriptors));
}

std::vector<Measured> Trend::figures(const TrendLimits& limits) const {
  const auto slope = [&](const std::string& what, const Line& line, const char* format,
                         const char* unit) {
    return measured(what + " per " + period_, line.slope(), format, unit);
  };
  auto resident = slope("resident memory", resident_, "+.1f", "B");
  if (!isSanitized()) resident.limit = limits.resident;
  return {
      slope("heap", heap_, "+.1f", "B").within(limits.heap),
      resident,
      slope("threads", threads_, "+.4f", "").within(limits.threads),
      slope("descriptors", descriptors_, "+.4f", "").within(limits.descriptors),
      firstAndLast("heap", heap_, 1e3, "KB"),
      firstAndLast("resident memory", resident_, 1e6, "MB"),
      firstAndLast("threads", threads_, 1, ""),
      firstAndLast("descriptors", descriptors_, 1, ""),
  };
}

}  // namespace proof
