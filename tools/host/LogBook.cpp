#include "tools/host/LogBook.h"

#include <algorithm>

namespace host {

void LogBook::add(const standin::LogLine& line) {
  const std::lock_guard lock(mutex_);
  lines_.push_back(line);
  if (lines_.size() > kept) lines_.pop_front();
  ++next_;
  ++counts_[static_cast<std::size_t>(std::clamp(line.level, 1, 4) - 1)];
}

LogBook::Lines LogBook::linesFrom(std::uint64_t from) const {
  const std::lock_guard lock(mutex_);
  const std::uint64_t first = next_ - lines_.size();
  const auto skipped = static_cast<std::ptrdiff_t>(std::clamp(from, first, next_) - first);
  return {next_, {lines_.begin() + skipped, lines_.end()}};
}

std::array<std::uint64_t, 4> LogBook::counts() const {
  const std::lock_guard lock(mutex_);
  return counts_;
}

}  // namespace host
