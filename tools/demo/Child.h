// Another run of this program, as a child process.
//
// It dies with the thread that started it, however that one ends. SIGINT and SIGTERM are blocked in
// it where they are blocked in its parent: all sub-commands that run for long wait for them that
// way.
//
// Threads: one thread, in a process that has no other.
// Ownership: a Child owns its process, and kills it unless it has ended; descriptors are borrowed
// for the constructor.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace demo {

// What a child gets instead of its parent's; -1 leaves it that.
struct Streams {
  int in = -1;
  int out = -1;
  int err = -1;
};

enum class Terminal { Shared, None };

class Child {
 public:
  // Starts `gatewayctl ARGUMENTS`. With Terminal::None it gets a session of its own, so that the
  // signals of the terminal's keys do not reach it. Throws std::system_error if it can't be
  // started.
  Child(const std::vector<std::string>& arguments, const Streams& streams, Terminal terminal);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  // Becomes readable when it has ended; only to be waited for.
  int endDescriptor() const { return endDescriptor_; }

  void signal(int number) const;

  // Waits for the end; returns the exit code, or 128 and the number of the signal that ended it.
  int waitExit();

 private:
  pid_t pid_;
  int endDescriptor_;
  int exitCode_ = -1;
  bool ended_ = false;
};

// "it ended with exit code 1", "it was ended by signal 9", of what Child::waitExit gives.
std::string describeExit(int exitCode);

}  // namespace demo
