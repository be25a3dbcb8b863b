// Lines on their way to a reader that may be slow, or stop reading. Adding never waits: a full
// queue drops lines, and reports how many once the reader has caught up.
//
// Threads: any thread adds; one makes, finishes and destroys the queue. A thread of its own writes.
// Ownership: borrows the descriptor.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

namespace host {

class LineQueue {
 public:
  // Up to `limit` bytes wait, and as many again are being written. `reportDropped` makes the line
  // that says how many texts were dropped.
  LineQueue(int descriptor, std::size_t limit,
            std::function<std::string(std::size_t dropped)> reportDropped);
  ~LineQueue();
  LineQueue(const LineQueue&) = delete;
  LineQueue& operator=(const LineQueue&) = delete;

  // Adds whole lines, which are dropped or kept together.
  void add(std::string_view lines);

  // Writes what is left and ends the thread. Gives up on a reader that takes nothing for two
  // seconds. Nothing may be added later.
  void finish();

  // Whether writing has failed, as on a full disk. The rest is lost.
  bool failed() const { return failed_; }

 private:
  void run();
  bool write(std::string_view text);
  bool waitForReader();

  const int descriptor_;
  const std::size_t limit_;
  const std::function<std::string(std::size_t)> reportDropped_;
  std::atomic<bool> failed_{false};

  std::mutex mutex_;  // guards everything below
  std::condition_variable changed_;
  std::string waiting_;
  std::size_t dropped_ = 0;
  bool isFinishing_ = false;

  std::thread writer_;
};

}  // namespace host
