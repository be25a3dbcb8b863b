// What reaches a sub-command from the terminal it runs in, as things to wait for together: the
// signals that ask it to end, and lines on standard input.
//
// Threads: one waits and reads, the thread that made the SignalDescriptor.
// Ownership: a SignalDescriptor owns its descriptor; standard input stays the process's own.
// A moment of Clock::time_point::max() stands for never.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace tools {

using Clock = std::chrono::steady_clock;

// The moment that is `seconds` (not negative) from now, or never.
Clock::time_point momentIn(std::optional<double> seconds);

// Takes SIGINT and SIGTERM out of a descriptor instead of dying from them. It blocks them for the
// thread that makes it and those started from that one later on, for good: make it first of all.
class SignalDescriptor {
 public:
  // Throws std::runtime_error if the system has no descriptor for it.
  SignalDescriptor();
  ~SignalDescriptor();
  SignalDescriptor(const SignalDescriptor&) = delete;
  SignalDescriptor& operator=(const SignalDescriptor&) = delete;

  // Readable once a signal has come; it is never read, and so stays readable.
  int descriptor() const { return descriptor_; }

 private:
  int descriptor_;
};

// Standard input, a line at a time. There should be only one at a time: what it has read and not
// handed over yet is lost with it.
class InputLines {
 public:
  // Reads once, which blocks unless something has arrived, and hands over the lines that are whole
  // now, without their ends. The end of the input makes a last line whole; an error counts as that
  // end.
  std::vector<std::string> take();

  // Nothing will come any more.
  bool ended() const { return ended_; }

  // What has come behind the last whole line.
  const std::string& unfinished() const { return unfinished_; }

 private:
  std::string unfinished_;
  bool ended_ = false;
};

enum class Arrival { Nothing, Signal, Input };

// Waits until a signal comes, `input` has something to take or the moment `until` has come. It may
// return Nothing before that moment. A signal goes before input. Without `input`, or when that has
// ended, standard input is left alone.
Arrival waitFor(const SignalDescriptor& signals, const InputLines* input, Clock::time_point until);

}  // namespace tools
