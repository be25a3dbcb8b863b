// Input from the terminal that a sub-command runs in, in a form to wait on: the signals that ask it
// to end, and lines on standard input.
//
// Threads: only the thread that made the SignalDescriptor waits and reads.
// Ownership: a SignalDescriptor owns its descriptor; the process keeps standard input.
// Clock::time_point::max() means never.
#pragma once

#include <unistd.h>

#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace tools {

using Clock = std::chrono::steady_clock;

// `seconds` from now, or never without a value. Takes only values that checkSeconds accepts.
Clock::time_point momentIn(std::optional<double> seconds);

// Returns nothing if the text is a number of seconds from 0 to 1000000000, or else the error.
std::string checkSeconds(const std::string& text);

// Delivers SIGINT and SIGTERM through a descriptor instead of ending the process. It blocks them
// for good on the calling thread and on threads started from it later, so make it before any
// thread.
//
// A user who asks twice doesn't wait: a further signal, a second or more after the first, ends the
// process at once with ExitCode::Interrupted. (Within a second both a terminal and a parent may
// deliver the same request.) A dedicated thread ensures this, whatever the others are blocked in.
class SignalDescriptor {
 public:
  // Throws std::runtime_error if the system runs out of descriptors.
  SignalDescriptor();
  ~SignalDescriptor();
  SignalDescriptor(const SignalDescriptor&) = delete;
  SignalDescriptor& operator=(const SignalDescriptor&) = delete;

  // Becomes readable at the first signal and stays so, as nobody reads it.
  int descriptor() const { return arrived_; }

 private:
  void watch() const;

  int signals_ = -1;
  int arrived_ = -1;
  int end_ = -1;
  std::thread watcher_;
};

// Lines from standard input or another descriptor. Use only one per descriptor: its destructor
// discards input that it has read but not returned.
class InputLines {
 public:
  // Borrows the descriptor.
  explicit InputLines(int descriptor = STDIN_FILENO) : descriptor_(descriptor) {}

  // Reads once and returns the lines that are now complete, without line ends. Blocks if nothing
  // has arrived. End of input, or an error, completes the last line.
  std::vector<std::string> take();

  // Whether the input has ended.
  bool ended() const { return ended_; }

  int descriptor() const { return descriptor_; }

 private:
  int descriptor_;
  std::string unfinished_;  // input after the last complete line
  bool ended_ = false;
};

enum class Arrival { Nothing, Signal, Input };

// Waits for a signal, for input to take, or until `until`; may return Nothing early. A signal takes
// precedence over input. When `input` is null or has ended, only the other two count.
Arrival waitFor(const SignalDescriptor& signals, const InputLines* input, Clock::time_point until);

// The same, with any descriptor that becomes readable as the input; -1 for none.
Arrival waitFor(const SignalDescriptor& signals, int descriptor, Clock::time_point until);

}  // namespace tools
