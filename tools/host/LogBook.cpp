#include "tools/host/LogBook.h"

#include <algorithm>

namespace host {

std::size_t levelIndex(int level) {
  constexpr int last = SONALITH_LOG_TRACE + static_cast<int>(levelNames.size()) - 1;
  return static_cast<std::size_t>(std::clamp<int>(level, SONALITH_LOG_TRACE, last) -
                                  SONALITH_LOG_TRACE);
}

void LogBook::add(const standin::LogLine& line) {
  const std::lock_guard lock(mutex_);
  lines_.push_back(line);
  if (lines_.size() > kept) lines_.pop_front();
  ++next_;
  ++counts_[levelIndex(line.level)];
}

LogBook::Lines LogBook::linesFrom(std::uint64_t from) const {
  const std::lock_guard lock(mutex_);
  const std::uint64_t first = next_ - lines_.size();
  const auto skipped = static_cast<std::ptrdiff_t>(std::clamp(from, first, next_) - first);
  return {next_, {lines_.begin() + skipped, lines_.end()}};
}

LogBook::Counts LogBook::counts() const {
  const std::lock_guard lock(mutex_);
  return counts_;
}

}  // namespace host
