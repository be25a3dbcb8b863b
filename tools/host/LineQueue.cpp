#include "tools/host/LineQueue.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <utility>

namespace host {

LineQueue::LineQueue(int descriptor, std::size_t limit,
                     std::function<std::string(std::size_t)> reportDropped)
    : descriptor_(descriptor),
      limit_(limit),
      reportDropped_(std::move(reportDropped)),
      writer_([this] { run(); }) {}

LineQueue::~LineQueue() {
  finish();
}

void LineQueue::add(std::string_view lines) {
  const std::lock_guard lock(mutex_);
  const bool fits = waiting_.empty() || waiting_.size() + lines.size() <= limit_;
  if (!fits || dropped_ > 0) {
    ++dropped_;
    return;
  }
  waiting_ += lines;
  changed_.notify_one();
}

void LineQueue::finish() {
  {
    const std::lock_guard lock(mutex_);
    isFinishing_ = true;
    changed_.notify_one();
  }
  if (writer_.joinable()) writer_.join();
}

void LineQueue::run() {
  for (;;) {
    std::string text;
    {
      std::unique_lock lock(mutex_);
      changed_.wait(lock, [&] { return !waiting_.empty() || isFinishing_; });
      if (waiting_.empty()) return;
      text.swap(waiting_);
      const std::size_t dropped = std::exchange(dropped_, 0);
      if (dropped > 0) text += reportDropped_(dropped);
    }
    if (!write(text)) return;
  }
}

// False if the queue gives up. A pipe that is ready takes PIPE_BUF bytes without blocking.
bool LineQueue::write(std::string_view text) {
  while (!text.empty() && !failed_) {
    if (!waitForReader()) return false;
    const auto written =
        ::write(descriptor_, text.data(), std::min<std::size_t>(text.size(), PIPE_BUF));
    if (written >= 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno != EINTR && errno != EAGAIN) {
      failed_ = true;
    }
  }
  return !failed_;
}

// False if the queue is to finish and the reader takes nothing.
bool LineQueue::waitForReader() {
  constexpr int tick = 100;  // milliseconds
  constexpr int patientTicks = 20;
  pollfd reader{descriptor_, POLLOUT, 0};
  for (int finishingTicks = 0; poll(&reader, 1, tick) == 0;) {
    const std::lock_guard lock(mutex_);
    if (isFinishing_ && ++finishingTicks == patientTicks) return false;
  }
  return true;
}

}  // namespace host
