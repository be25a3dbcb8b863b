#include "tools/demo/demo.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "example.h"
#include "manual.h"
#include "standin/MemoryFile.h"
#include "tools/common/ChildProcess.h"
#include "tools/common/ExitCode.h"
#include "tools/common/ManualText.h"
#include "tools/common/Output.h"
#include "tools/common/Terminal.h"

namespace demo {
namespace {

using tools::ExitCode;

struct Options {
  std::vector<std::string> settings;
  std::string seconds;
  std::string page;
  std::string watchRate = "2";
  bool noPage = false;
  bool noWatch = false;
};

// ---- The two processes ----------------------------------------------------------------------

// The path of this program, so that the demo runs the sub-commands of the same build.
std::string ownProgram() {
  return std::filesystem::read_symlink("/proc/self/exe");
}

// The simulator plays the keys of the example.
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

// The example with other ports, because its own may be taken on this machine.
std::string exampleFor(const Addresses& addresses) {
  std::string text(example::grpc_gateway_conf);
  replace(text, "localhost:50005", addresses.meters);
  replace(text, "localhost:50006", addresses.engine);
  return text;
}

// ---- Running --------------------------------------------------------------------------------

int openNothing() {
  const int descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) throw std::system_error(errno, std::generic_category(), "/dev/null");
  return descriptor;
}

// The simulator and its output. Its log is shown only if it fails.
class SimulatorProcess {
 public:
  SimulatorProcess()
      : nothing_(openNothing()),
        child_(ownProgram(), simulatorArguments(example_.path()),
               {.in = nothing_, .out = output_.write(), .err = log_.descriptor()},
               tools::Session::Own) {
    output_.closeWrite();
  }
  ~SimulatorProcess() { close(nothing_); }
  SimulatorProcess(const SimulatorProcess&) = delete;
  SimulatorProcess& operator=(const SimulatorProcess&) = delete;

  tools::InputLines& lines() { return lines_; }

  void kill() const { child_.signal(SIGKILL); }

  // Waits for its end, shows its log and says how it ended.
  std::string explainEnd() {
    const int exitCode = child_.waitExit();
    std::array<char, 65536> chunk;
    off_t at = 0;
    for (ssize_t count; (count = pread(log_.descriptor(), chunk.data(), chunk.size(), at)) > 0;) {
      tools::writeError({chunk.data(), static_cast<std::size_t>(count)});
      at += count;
    }
    return tools::describeExit(exitCode);
  }

 private:
  standin::MemoryFile example_{std::string(example::grpc_gateway_conf)};
  tools::Pipe output_;
  tools::InputLines lines_{output_.read()};
  standin::MemoryFile log_;
  int nothing_;
  tools::ChildProcess child_;
};

class Demo {
 public:
  explicit Demo(const Options& options) : options_(options) {}

  int run() {
    const auto addresses = awaitAddresses();
    if (!addresses) return ExitCode::Interrupted;
    const standin::MemoryFile config(exampleFor(*addresses));
    tools::say("demo",
               "running. Try: set out_gain -6.5 (the simulator shows what arrives); slots; quit.");
    tools::ChildProcess host(ownProgram(), hostArguments(options_, config.path()), {});
    attend(host);
    simulator_.kill();
    while (!simulator_.lines().ended()) passOn();
    return exitCodeOf(host.waitExit());
  }

 private:
  std::optional<Addresses> awaitAddresses();
  void attend(const tools::ChildProcess& host);
  void passOn();
  static int exitCodeOf(int hostExit);

  const Options& options_;
  const tools::SignalDescriptor signals_;
  SimulatorProcess simulator_;
};

// The simulator's first two lines name them. Nothing if a signal comes first.
std::optional<Addresses> Demo::awaitAddresses() {
  Addresses addresses;
  auto& lines = simulator_.lines();
  while (addresses.meters.empty() || addresses.engine.empty()) {
    const auto arrival = tools::waitFor(signals_, &lines, tools::Clock::time_point::max());
    if (arrival == tools::Arrival::Signal) return std::nullopt;
    if (arrival == tools::Arrival::Nothing) continue;
    for (const std::string_view line : lines.take()) {
      if (line.starts_with("meters ")) addresses.meters = line.substr(7);
      if (line.starts_with("engine ")) addresses.engine = line.substr(7);
    }
    if (lines.ended()) {
      throw std::runtime_error("the simulator did not start: " + simulator_.explainEnd());
    }
  }
  return addresses;
}

// Returns when the host has ended. Passes a signal on, since it may have come to this process
// alone. The host does not mind a second one.
void Demo::attend(const tools::ChildProcess& host) {
  std::array<pollfd, 3> sources{{{signals_.descriptor(), POLLIN, 0},
                                 {simulator_.lines().descriptor(), POLLIN, 0},
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
    if (!simulator_.lines().ended()) continue;
    tools::say("demo",
               "the simulator is gone: " + simulator_.explainEnd() +
                   ". Values and changes no longer arrive. End the demo with Ctrl-C or quit.");
    output.fd = -1;
  }
}

void Demo::passOn() {
  for (const auto& line : simulator_.lines().take()) {
    tools::writeOut(fmt::format("simulator: {}\n", line));
  }
}

int Demo::exitCodeOf(int hostExit) {
  constexpr int firstOfSignals = 128;
  if (hostExit < firstOfSignals || hostExit == ExitCode::Interrupted) return hostExit;
  tools::say("demo", "the host is gone: " + tools::describeExit(hostExit));
  return ExitCode::Failed;
}

}  // namespace
}  // namespace demo

void addDemo(CLI::App& app, int& exitCode) {
  auto* command = app.add_subcommand("demo", "Run the module between simulated services");
  const auto options = std::make_shared<demo::Options>();
  command->footer(tools::manualOf(demo::manual_txt));
  command->add_option("--for", options->seconds, "Stop after this time.")->type_name("SECONDS");
  command->add_option("--set", options->settings, "Change engine slots right after the start.")
      ->type_name("NAME=VALUE");
  auto* page = command->add_option("--page", options->page, "Where to serve the live page.")
                   ->type_name("ADDRESS:PORT");
  command->add_flag("--no-page", options->noPage, "Serve no live page.")->excludes(page);
  auto* rate = command->add_option("--watch-rate", options->watchRate,
                                   "Print at most N changes of a slot per second.");
  rate->type_name("N")->capture_default_str();
  command->add_flag("--no-watch", options->noWatch, "Print no changes.")->excludes(rate);
  command->callback([options, &exitCode] { exitCode = demo::Demo(*options).run(); });
}
