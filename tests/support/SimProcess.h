// gatewayctl as a child process, for test programs: servers that obey commands, and that can
// freeze, die and come back without harm to the test's own process.
//
// Nothing waits for a fixed time: members wait for an event and give up after `patience`, a
// generous bound that only keeps a broken run from hanging. A process dies with the thread that
// started it.
//
// Threads: one at a time.
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

// A run of gatewayctl, or of another program, with any arguments.
class ToolProcess {
 public:
  // Throws std::runtime_error if the program can't be started.
  explicit ToolProcess(const std::vector<std::string>& arguments,
                       const std::string& program = GATEWAYCTL_PATH);
  // Kills the process if it still runs.
  ~ToolProcess();
  ToolProcess(const ToolProcess&) = delete;
  ToolProcess& operator=(const ToolProcess&) = delete;

  // Write a text, or a line, to standard input. Throw std::runtime_error if the process no longer
  // reads it.
  void write(std::string_view text);
  void writeLine(std::string_view line);
  void closeInput();

  // Waits for a line of standard output that begins with `prefix`, and returns each line once.
  // Lines that it skips can still be waited for. Throws std::runtime_error, with all output so far,
  // when patience runs out or no such line can come any more.
  std::string waitLine(std::string_view prefix);

  // Waits until standard error contains this text. Throws as waitLine does.
  void waitError(std::string_view text);

  // Whether standard error contains this text by now.
  bool hasError(std::string_view text) const;

  // Whether a line that begins with `prefix` has come, waited for or not.
  bool hasLine(std::string_view prefix) const;

  // Waits for `wanted` further lines that begin with `prefix`. waitLine can still return them.
  // Throws as waitLine does.
  void waitMore(std::string_view prefix, std::ptrdiff_t wanted);

  // Valid until waitExit.
  pid_t pid() const;

  // All lines of standard output so far.
  std::vector<std::string> lines() const;

  // All of standard error. Throws std::logic_error while the process can still write to it, since
  // what has arrived by then is chance: wait with waitError instead.
  std::string errors() const;

  // Drops all output so far, to save memory in long runs. Returns the lines of standard output,
  // waited for or not.
  std::vector<std::string> takeLines();

  // Sends a signal. Returns from SIGSTOP when the process has stopped.
  void signal(int number);

  // Waits for the end. Returns the exit code, or 128 plus the number of the signal that ended the
  // process. From then on lines() and errors() are complete.
  int waitExit();

 private:
  struct Run;

  std::string report(std::string_view problem) const;

  const std::string program_;
  int input_ = -1;
  std::unique_ptr<Run> run_;
};

// The program that serves both services: the simulator, or another that takes the same commands and
// reports the same events, as far as the test uses them. Both targets follow these arguments, as
// --meters and --engine.
struct ServerProgram {
  std::string path = GATEWAYCTL_PATH;
  std::vector<std::string> arguments{"sim", "--commands"};
};

// The simulator of both services, with --commands. `gatewayctl sim --help` explains commands and
// events.
class SimProcess {
 public:
  static constexpr const char* anyPort = "127.0.0.1:0";

  // Waits until it listens. Targets are "ADDRESS:PORT", or empty for a service that isn't offered.
  // To come back at the same address, pass the targets of the previous simulator.
  explicit SimProcess(const std::string& metersTarget = anyPort,
                      const std::string& engineTarget = anyPort, const ServerProgram& program = {});

  // Makes it quit, and reports a test failure if that fails. Does nothing if it was killed or has
  // quit.
  ~SimProcess();
  SimProcess(const SimProcess&) = delete;
  SimProcess& operator=(const SimProcess&) = delete;

  // Where it listens; empty for a service that isn't offered.
  const std::string& metersTarget() const { return metersTarget_; }
  const std::string& engineTarget() const { return engineTarget_; }

  // Has one command carried out, any but quit. Afterwards later calls see its effect, and an
  // `error` event for a wrong command has come. A frozen process carries it out when it thaws.
  void command(const std::string& line);

  // Waits for an event, as ToolProcess::waitLine does for a line. "open fast 1 ", with the blank,
  // does not match call 10.
  std::string waitEvent(std::string_view prefix) { return process_.waitLine(prefix); }

  // Whether an event that begins with `prefix` has come, waited for or not.
  bool hasEvent(std::string_view prefix) const { return process_.hasLine(prefix); }

  // Drops all events so far, to save memory in long runs.
  void forgetEvents() { process_.takeLines(); }

  // Makes it quit, and returns its exit code.
  int quit();

  // Ends it at once, as a crash would: its peers only notice that their connections are gone.
  void kill();

  // Stops it, as a hang would: its connections stay, and it answers nothing until `thaw`.
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

// Bytes as commands and events write them: hexadecimal, or - for none.
std::string toHex(std::string_view bytes);
std::string toHex(const google::protobuf::MessageLite& message);

// A port of 127.0.0.1 that nobody listens on. Another program may take it at any time.
int freePort();
// The same as a target, "127.0.0.1:PORT".
std::string unusedTarget();
