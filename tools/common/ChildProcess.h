// Child processes, and pipes to them.
//
// A child dies with the thread that started it, however that thread ends. It inherits the set of
// blocked signals: all long-running sub-commands block SIGINT and SIGTERM and wait for them.
//
// Threads: one at a time.
// Ownership: a ChildProcess owns its process, and kills it unless it has ended. It borrows
// descriptors for its constructor.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace tools {

// A pipe, both ends of which are closed on exec.
class Pipe {
 public:
  // Throws std::system_error if the system has no descriptors for it.
  Pipe();
  ~Pipe();
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  int read() const { return read_; }
  int write() const { return write_; }
  // Call this once a child has the writing end, so that the pipe's input ends with the child.
  void closeWrite();

 private:
  int read_ = -1;
  int write_ = -1;
};

// What a child gets as standard streams. At -1 it shares its parent's.
struct ChildStreams {
  int in = -1;
  int out = -1;
  int err = -1;
};

// A child in its own session doesn't get the signals of the terminal's keys, such as Ctrl-C.
enum class Session { Shared, Own };

class ChildProcess {
 public:
  // Starts `program` with these arguments. Throws std::system_error if that fails.
  ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
               const ChildStreams& streams, Session session = Session::Shared);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Valid until waitExit.
  pid_t pid() const { return pid_; }

  // Becomes readable when the process has ended; only for waiting.
  int endDescriptor() const { return endDescriptor_; }

  // False if the process is gone.
  bool signal(int number) const;

  // Waits until the process has been stopped, as by SIGSTOP, or has ended.
  void waitStopped() const;

  // Waits for the end. Returns the exit code, or 128 plus the number of the signal that ended it.
  int waitExit();
  bool hasBeenWaitedFor() const { return ended_; }

 private:
  pid_t pid_;
  int endDescriptor_;
  int exitCode_ = -1;
  bool ended_ = false;
};

// "it ended with exit code 1" or "signal 9 ended it", for a result of ChildProcess::waitExit.
std::string describeExit(int exitCode);

}  // namespace tools
