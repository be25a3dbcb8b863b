// What reaches a sub-command from the terminal it runs in, as things to wait for together: the
// signals that ask it to end, and lines on standard input.
//
// Threads: one waits and reads, the thread that made the SignalDescriptor.
// Ownership: a SignalDescriptor owns its descriptor; standard input stays the process's own.
// A moment of Clock::time_point::max() stands for never.
#pragma once

#include <unistd.h>

#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace tools {

using Clock = std::chrono::steady_clock;

// The moment that is `seconds` from now, or never. They must be what checkSeconds accepts.
Clock::time_point momentIn(std::optional<double> seconds);

// Nothing if the text is a number of seconds from 0 to 1000000000; otherwise what is wrong with it.
std::string checkSeconds(const std::string& text);

// Takes SIGINT and SIGTERM out of a descriptor instead of dying from them. It blocks them for the
// thread that makes it and those started from that one later on, for good: make it first of all.
//
// Whoever asks twice is not kept waiting: a further signal, a second or more after the first (a
// terminal and a parent may both pass on the one wish), ends the process at once, with code 130. A
// thread of its own sees to that, whatever the others hang in.
class SignalDescriptor {
 public:
  // Throws std::runtime_error if the system has no descriptor for it.
  SignalDescriptor();
  ~SignalDescriptor();
  SignalDescriptor(const SignalDescriptor&) = delete;
  SignalDescriptor& operator=(const SignalDescriptor&) = delete;

  // Readable once a signal has come; it is never read, and so stays readable.
  int descriptor() const { return arrived_; }

 private:
  void watch() const;

  int signals_ = -1;
  int arrived_ = -1;
  int end_ = -1;
  std::thread watcher_;
};

// Standard input, or what another descriptor gives, a line at a time. There should be only one of a
// descriptor at a time: what it has read and not handed over yet is lost with it.
class InputLines {
 public:
  // Borrows the descriptor.
  explicit InputLines(int descriptor = STDIN_FILENO) : descriptor_(descriptor) {}

  // Reads once, which blocks unless something has arrived, and hands over the lines that are whole
  // now, without their ends. The end of the input makes a last line whole; an error counts as that
  // end.
  std::vector<std::string> take();

  // Nothing will come any more.
  bool ended() const { return ended_; }

 private:
  int descriptor_;
  std::string unfinished_;  // what has come behind the last whole line
  bool ended_ = false;
};

enum class Arrival { Nothing, Signal, Input };

// Waits until a signal comes, `input` has something to take or the moment `until` has come. It may
// return Nothing before that moment. A signal goes before input. `input` is that of standard input;
// without it, or when it has ended, standard input is left alone.
Arrival waitFor(const SignalDescriptor& signals, const InputLines* input, Clock::time_point until);

}  // namespace tools
