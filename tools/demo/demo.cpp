#include "tools/demo/demo.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "example.h"
#include "standin/MemoryFile.h"
#include "tools/common/Output.h"
#include "tools/common/Terminal.h"
#include "tools/demo/Child.h"

namespace demo {
namespace {

constexpr char manual[] =
    "Example: watch values move, and a change arrive at the simulator\n"
    "  gatewayctl demo --set out_gain=-6.5\n"
    "\n"
    "Runs two processes: the simulator of both services, at ports of its own, and the module in a\n"
    "stand-in for the engine, with examples/grpc-gateway.conf. The lines on standard output are\n"
    "those of `gatewayctl host`, and what the simulator was sent:\n"
    "  fast out_level -23.4\n"
    "  simulator: SetParams 1 out.gain float -6.5\n"
    "Standard input takes the commands of `gatewayctl host`, such as: set out_gain -6.5\n"
    "\n"
    "--for, --set, --page, --no-page and --watch-rate are passed on to `gatewayctl host`, whose\n"
    "--help tells more of them; its --watch is given too, unless there is --no-watch. No other\n"
    "options of host or of `gatewayctl sim` are taken. It ends by Ctrl-C, by quit or by --for.\n"
    "\n"
    "Exit codes: that of the host, which are 0 done, 1 the run failed, 2 wrong use, 130\n"
    "interrupted.";

constexpr int interruptedCode = 130;

struct Options {
  std::vector<std::string> settings;
  std::string seconds;
  std::string page;
  std::string watchRate = "2";
  bool noPage = false;
  bool noWatch = false;
};

void say(std::string_view text) {
  tools::writeError(fmt::format("gatewayctl demo: {}\n", text));
}

// ---- Arguments of the two -------------------------------------------------------------------

// It plays what the example names.
std::vector<std::string> simulatorArguments(const std::string& config) {
  constexpr const char* anyPort = "127.0.0.1:0";
  return {"sim", "--config", config, "--meters", anyPort, "--engine", anyPort};
}

std::vector<std::string> hostArguments(const Options& options, const std::string& config) {
  std::vector<std::string> arguments{"host", config};
  const auto add = [&](const char* name, const std::string& value) {
    arguments.emplace_back(name);
    arguments.push_back(value);
  };
  if (!options.noWatch) {
    arguments.emplace_back("--watch");
    add("--watch-rate", options.watchRate);
  }
  if (!options.seconds.empty()) add("--for", options.seconds);
  for (const auto& setting : options.settings) add("--set", setting);
  if (!options.page.empty()) add("--page", options.page);
  if (options.noPage) arguments.emplace_back("--no-page");
  return arguments;
}

struct Addresses {
  std::string meters;
  std::string engine;
};

void replace(std::string& text, std::string_view from, const std::string& to) {
  const auto at = text.find(from);
  if (at == text.npos) throw std::logic_error(fmt::format("the example has no {}", from));
  text.replace(at, from.size(), to);
}

// The example as it stands, but for the ports, which may be taken on this machine.
std::string exampleFor(const Addresses& addresses) {
  std::string text(example::grpc_gateway_conf);
  replace(text, "localhost:50005", addresses.meters);
  replace(text, "localhost:50006", addresses.engine);
  return text;
}

// ---- Running --------------------------------------------------------------------------------

struct Pipe {
  Pipe() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
      throw std::system_error(errno, std::generic_category(), "pipe2");
    }
    read = ends[0];
    write = ends[1];
  }
  ~Pipe() {
    close(read);
    closeWrite();
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  void closeWrite() {
    if (write >= 0) close(std::exchange(write, -1));
  }

  int read;
  int write;
};

int openNothing() {
  const int descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) throw std::system_error(errno, std::generic_category(), "/dev/null");
  return descriptor;
}

// The simulator, with what it says. What it logs is shown only if it fails.
class SimulatorProcess {
 public:
  SimulatorProcess()
      : nothing_(openNothing()),
        child_(simulatorArguments(example_.path()),
               {.in = nothing_, .out = output_.write, .err = log_.descriptor()}, Terminal::None) {
    output_.closeWrite();
  }
  ~SimulatorProcess() { close(nothing_); }
  SimulatorProcess(const SimulatorProcess&) = delete;
  SimulatorProcess& operator=(const SimulatorProcess&) = delete;

  int outputDescriptor() const { return output_.read; }
  std::vector<std::string> takeLines() { return lines_.take(); }
  bool ended() const { return lines_.ended(); }

  void kill() const { child_.signal(SIGKILL); }

  // Waits for its end, shows its log and tells how it ended.
  std::string explainEnd() {
    const int exitCode = child_.waitExit();
    std::array<char, 65536> chunk;
    off_t at = 0;
    for (ssize_t count; (count = pread(log_.descriptor(), chunk.data(), chunk.size(), at)) > 0;) {
      tools::writeError({chunk.data(), static_cast<std::size_t>(count)});
      at += count;
    }
    return describeExit(exitCode);
  }

 private:
  standin::MemoryFile example_{std::string(example::grpc_gateway_conf)};
  Pipe output_;
  tools::InputLines lines_{output_.read};
  standin::MemoryFile log_;
  int nothing_;
  Child child_;
};

class Demo {
 public:
  explicit Demo(const Options& options) : options_(options) {}

  int run() {
    const auto addresses = awaitAddresses();
    if (!addresses) return interruptedCode;
    const standin::MemoryFile config(exampleFor(*addresses));
    say("running. Try: set out_gain -6.5 (the simulator tells what arrives); slots; quit.");
    Child host(hostArguments(options_, config.path()), {}, Terminal::Shared);
    attend(host);
    simulator_.kill();
    while (!simulator_.ended()) passOn();
    return exitCodeOf(host.waitExit());
  }

 private:
  std::optional<Addresses> awaitAddresses();
  void attend(const Child& host);
  void passOn();
  static int exitCodeOf(int hostExit);

  const Options& options_;
  const tools::SignalDescriptor signals_;
  SimulatorProcess simulator_;
};

// Nothing if a signal came. Its first two lines tell them.
std::optional<Addresses> Demo::awaitAddresses() {
  Addresses addresses;
  std::array<pollfd, 2> sources{
      {{signals_.descriptor(), POLLIN, 0}, {simulator_.outputDescriptor(), POLLIN, 0}}};
  while (addresses.meters.empty() || addresses.engine.empty()) {
    if (poll(sources.data(), sources.size(), -1) <= 0) continue;
    if (sources[0].revents != 0) return std::nullopt;
    for (const std::string_view line : simulator_.takeLines()) {
      if (line.starts_with("meters ")) addresses.meters = line.substr(7);
      if (line.starts_with("engine ")) addresses.engine = line.substr(7);
    }
    if (simulator_.ended()) {
      throw std::runtime_error("the simulator did not start: " + simulator_.explainEnd());
    }
  }
  return addresses;
}

// Until the host has ended. A signal is passed on: it may have come to this process alone, and a
// second one does the host no harm.
void Demo::attend(const Child& host) {
  std::array<pollfd, 3> sources{{{signals_.descriptor(), POLLIN, 0},
                                 {simulator_.outputDescriptor(), POLLIN, 0},
                                 {host.endDescriptor(), POLLIN, 0}}};
  auto& [signal, output, end] = sources;
  while (end.revents == 0) {
    if (poll(sources.data(), sources.size(), -1) <= 0) continue;
    if (signal.revents != 0) {
      host.signal(SIGINT);
      signal.fd = -1;
    }
    if (output.revents == 0) continue;
    passOn();
    if (!simulator_.ended()) continue;
    say("the simulator is gone, " + simulator_.explainEnd() +
        ": no value and no change arrives any more. End by Ctrl-C or quit.");
    output.fd = -1;
  }
}

void Demo::passOn() {
  for (const auto& line : simulator_.takeLines())
    tools::writeOut(fmt::format("simulator: {}\n", line));
}

int Demo::exitCodeOf(int hostExit) {
  constexpr int firstOfSignals = 128;
  if (hostExit < firstOfSignals || hostExit == interruptedCode) return hostExit;
  say("the host is gone: " + describeExit(hostExit));
  return 1;
}

}  // namespace
}  // namespace demo

void addDemo(CLI::App& app, int& exitCode) {
  auto* command =
      app.add_subcommand("demo", "Runs the module between simulated services, to see it work");
  const auto options = std::make_shared<demo::Options>();
  command->footer(demo::manual);
  command->add_option("--for", options->seconds, "End by itself after so long")
      ->type_name("SECONDS");
  command->add_option("--set", options->settings, "Change engine slots right after the start")
      ->type_name("NAME=VALUE");
  auto* page = command->add_option("--page", options->page, "Where to serve the live page")
                   ->type_name("ADDRESS:PORT");
  command->add_flag("--no-page", options->noPage, "Serve no live page")->excludes(page);
  auto* rate = command->add_option("--watch-rate", options->watchRate,
                                   "Changes printed per second and slot at most");
  rate->type_name("N")->capture_default_str();
  command->add_flag("--no-watch", options->noWatch, "Print no changes")->excludes(rate);
  command->callback([options, &exitCode] { exitCode = demo::Demo(*options).run(); });
}
