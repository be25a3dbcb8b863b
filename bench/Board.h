// What the server reports during a measurement: memory shared through a file, so that reporting
// costs neither side a system call.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <stdexcept>
#include <string>

namespace bench {

// Reads a clock of the kernel, in nanoseconds.
inline std::uint64_t nanoseconds(clockid_t clock) {
  timespec now;
  clock_gettime(clock, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000u +
         static_cast<std::uint64_t>(now.tv_nsec);
}

struct Board {
  std::atomic<std::uint64_t> answeredCalls;
  // CLOCK_MONOTONIC just before each paced message is written, by its sequence number.
  std::array<std::atomic<std::uint64_t>, 1 << 16> writtenAt;

  std::atomic<std::uint64_t>& timeOf(std::uint64_t sequence) {
    return writtenAt[sequence % writtenAt.size()];
  }
};

// Throws std::runtime_error. The board stays mapped until the process ends.
inline Board& openBoard(const std::string& path) {
  const int file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (file < 0 || ftruncate(file, sizeof(Board)) != 0) {
    throw std::runtime_error("can't open the board " + path);
  }
  void* const memory = mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  close(file);
  if (memory == MAP_FAILED) throw std::runtime_error("can't map the board " + path);
  return *static_cast<Board*>(memory);
}

}  // namespace bench
