// The latest lines of the host's log, and how many there were of each level.
//
// Any thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string_view>
#include <vector>

#include "standin/Host.h"

namespace host {

// The levels of log lines, rising from SONALITH_LOG_TRACE.
inline constexpr std::array<std::string_view, 4> levelNames = {"trace", "network", "fault",
                                                               "error"};
// The index of a level there. A level beyond the ends counts as the nearest one.
std::size_t levelIndex(int level);

class LogBook {
 public:
  static constexpr std::size_t kept = 1000;  // lines

  void add(const standin::LogLine& line);

  struct Lines {
    std::uint64_t next = 0;  // the number that the next line will have: the next `from`
    std::vector<standin::LogLine> lines;
  };
  // The lines from number `from` on that are still kept. Numbers rise from 0.
  Lines linesFrom(std::uint64_t from) const;

  // Lines so far of each level.
  using Counts = std::array<std::uint64_t, levelNames.size()>;
  Counts counts() const;

 private:
  mutable std::mutex mutex_;  // guards everything below
  std::deque<standin::LogLine> lines_;
  std::uint64_t next_ = 0;
  Counts counts_{};
};

}  // namespace host
