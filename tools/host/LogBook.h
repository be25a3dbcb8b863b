// The latest lines of the host's log, for those who look later than they came.
//
// Any thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <vector>

#include "standin/Host.h"

namespace host {

class LogBook {
 public:
  static constexpr std::size_t kept = 1000;  // lines

  void add(const standin::LogLine& line);

  struct Lines {
    std::uint64_t next = 0;  // the number that the next line will have: the next `from`
    std::vector<standin::LogLine> lines;
  };
  // The lines from number `from` on, as far as they are kept. Numbers rise from 0.
  Lines linesFrom(std::uint64_t from) const;

  // Lines so far of the levels 1 to 4.
  std::array<std::uint64_t, 4> counts() const;

 private:
  mutable std::mutex mutex_;  // of all below
  std::deque<standin::LogLine> lines_;
  std::uint64_t next_ = 0;
  std::array<std::uint64_t, 4> counts_{};
};

}  // namespace host
