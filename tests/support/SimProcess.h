// gatewayctl as a process of its own, for test programs: servers that can be told what to do, that
// can freeze, die and come back, without a thread or a crash of theirs touching the test.
//
// All waiting is for something to happen, and bounded by `patience`: a bound that keeps a broken
// run from hanging, generous by intent. A process dies with the thread that made it.
//
// Threads: one thread at a time.
#pragma once

#include <google/protobuf/message_lite.h>
#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

constexpr std::chrono::seconds patience{60};

// A run of gatewayctl with any arguments, or of another program.
class ToolProcess {
 public:
  // Throws std::runtime_error if the program can't be started.
  explicit ToolProcess(const std::vector<std::string>& arguments,
                       const std::string& program = GATEWAYCTL_PATH);
  // Kills it if it still runs.
  ~ToolProcess();
  ToolProcess(const ToolProcess&) = delete;
  ToolProcess& operator=(const ToolProcess&) = delete;

  // Text, or a line, for its standard input. Throws std::runtime_error if it does not read any
  // more.
  void write(std::string_view text);
  void writeLine(std::string_view line);
  void closeInput();

  // The next line of its standard output that begins with `prefix` and has not been waited for
  // before; lines that were passed over can still be waited for. Throws std::runtime_error, with
  // all that the process has said, when patience ends or no such line can come any more.
  std::string waitLine(std::string_view prefix);

  // Returns when standard error has this text somewhere. Throws std::runtime_error likewise.
  void waitError(std::string_view text);

  // Whether a line that begins with `prefix` has come so far, waited for or not.
  bool hasLine(std::string_view prefix) const;

  // Returns when so many more lines that begin with `prefix` have come; those that are there do not
  // count, and none counts as waited for. Throws std::runtime_error as waitLine does.
  void waitMore(std::string_view prefix, std::ptrdiff_t wanted);

  // While it runs.
  pid_t pid() const { return pid_; }

  // All lines of standard output so far, and all of standard error.
  std::vector<std::string> lines() const;
  std::string errors() const;

  // Lets go of all lines so far, for runs that last.
  void forgetLines();

  // Sends a signal. When this returns, SIGSTOP has stopped the process and SIGCONT lets it go on.
  void signal(int number);

  // Waits for its end and returns its exit code, or 128 and the number of the signal that ended it.
  // From then on lines() and errors() are whole.
  int waitExit();

 private:
  struct Output;

  std::string report(std::string_view problem) const;
  bool isRunning() const { return pid_ > 0; }
  void reap(int options);

  const std::string program_;
  pid_t pid_ = -1;  // -1 when it has ended
  int exitCode_ = -1;
  int input_ = -1;
  std::unique_ptr<Output> output_;
};

// What plays both services: the simulator, or another program that obeys and tells as it does, as
// far as a test goes. It is given both targets as --meters and --engine behind these arguments.
struct ServerProgram {
  std::string path = GATEWAYCTL_PATH;
  std::vector<std::string> arguments{"sim", "--commands"};
};

// The simulator of both services, obeying commands. `gatewayctl sim --help` explains commands and
// events.
class SimProcess {
 public:
  static constexpr const char* anyPort = "127.0.0.1:0";

  // Returns when it listens. Targets are "ADDRESS:PORT", or empty for a service that is not there.
  // To come back at the same place, pass the targets of the one before.
  explicit SimProcess(const std::string& metersTarget = anyPort,
                      const std::string& engineTarget = anyPort, const ServerProgram& program = {});

  // Lets it end as it should, and reports a test failure if it does not. One that was killed is
  // left at that.
  ~SimProcess();
  SimProcess(const SimProcess&) = delete;
  SimProcess& operator=(const SimProcess&) = delete;

  // Where it listens; empty for a service that is not there.
  const std::string& metersTarget() const { return metersTarget_; }
  const std::string& engineTarget() const { return engineTarget_; }

  // Has one command carried out, any but quit, and returns when it is: an `error` event for it has
  // come by then, and calls that come later meet its effect. To a frozen process it is only sent.
  void command(const std::string& line);

  // The next event that begins with `prefix` and has not been waited for before; events that were
  // passed over can still be waited for. "open fast 1 " with the blank keeps 10 away. Throws
  // std::runtime_error, with all that was seen, when patience ends or the process has.
  std::string waitEvent(std::string_view prefix) { return process_.waitLine(prefix); }

  // Whether an event that begins with `prefix` has come so far, waited for or not.
  bool hasEvent(std::string_view prefix) const { return process_.hasLine(prefix); }

  // Lets go of all events so far, waited for or not, for runs that last.
  void forgetEvents() { process_.forgetLines(); }

  // Ends it as it should, and returns its exit code.
  int quit();

  // Ends it as a crash would: at once, and its peers learn it from their connections only.
  void kill();

  // Stops it as a hang would: connections stay, and nothing is answered until `thaw`.
  void freeze();
  void thaw();

 private:
  ToolProcess process_;
  std::string metersTarget_;
  std::string engineTarget_;
  unsigned commands_ = 0;
  bool frozen_ = false;
  bool ended_ = false;
};

// A message's bytes as commands and events write them: hexadecimal, or - for none.
std::string toHex(std::string_view bytes);
std::string toHex(const google::protobuf::MessageLite& message);

// A port of 127.0.0.1 that nobody listens on. Nothing keeps others from taking it later.
int freePort();
// The same as a target, "127.0.0.1:PORT".
std::string unusedTarget();
