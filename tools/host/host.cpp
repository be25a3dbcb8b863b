#include "tools/host/host.h"

#include <fmt/chrono.h>
#include <fmt/core.h>
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "standin/Engine.h"
#include "standin/Host.h"
#include "standin/LoadedModule.h"
#include "tools/Terminal.h"
#include "tools/Words.h"

namespace {

using standin::Slot;
using standin::SlotSet;
using standin::SlotValue;
using tools::Arrival;
using tools::Clock;

constexpr char manual[] =
    "Loads the module, starts it with a configuration file and keeps it running, in a stand-in "
    "for\n"
    "the engine. Log lines go to standard error, everything else to standard output.\n"
    "\n"
    "Commands on standard input, a line each:\n"
    "  slots                          all slots with their values\n"
    "  set NAME VALUE [NAME VALUE]... change engine slots, in one notification\n"
    "  quit                           stop the module and end\n"
    "\n"
    "A value is read while the module may be writing it: a text can be half old and half new.\n"
    "\n"
    "Example: gatewayctl host examples/grpc-gateway.conf --watch --set out_gain=-6.5\n";

struct Options {
  std::string config;
  std::string module;
  std::string name = "gateway";
  bool watch = false;
  double watchRate = 4;
  std::optional<double> seconds;
  std::vector<std::string> settings;
};

// Beside this program, as a build leaves it.
std::string defaultModulePath() {
  return std::filesystem::read_symlink("/proc/self/exe").replace_filename("grpc-gateway.so");
}

void print(const std::string& line) {
  fmt::print("{}\n", line);
  std::fflush(stdout);
}

void printLog(const standin::LogLine& line) {
  const auto time = std::chrono::time_point_cast<std::chrono::milliseconds>(line.time);
  const auto milliseconds = time.time_since_epoch().count() % 1000;
  fmt::print(stderr, "{:%H:%M:%S}.{:03} [{}] {}:{}  {}\n",
             fmt::localtime(std::chrono::system_clock::to_time_t(line.time)), milliseconds,
             line.level, line.file, line.line, line.text);
}

std::string describe(const Slot& slot) {
  return fmt::format("{} {} {}", standin::nameOf(slot.set), slot.name(),
                     standin::textOf(slot.read()));
}

template <class T>
T parseNumber(const std::string& name, const std::string& text, const char* wanted) {
  T number{};
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || stop != end) {
    throw std::invalid_argument(fmt::format("{} takes {}, not \"{}\"", name, wanted, text));
  }
  return number;
}

SlotValue parseValue(const Slot& slot, const std::string& text) {
  const std::string name = slot.name();
  switch (slot.description.valueType) {
    case SONALITH_SLOT_INT:
      return parseNumber<std::int32_t>(name, text, "an integer of 32 bits");
    case SONALITH_SLOT_UINT:
      return parseNumber<std::uint32_t>(name, text, "an integer from 0 to 4294967295");
    case SONALITH_SLOT_FLOAT:
      return parseNumber<float>(name, text, "a number");
    default:
      return text;
  }
}

// A started module and all that is shown and asked of it.
class Session {
 public:
  explicit Session(const Options& options)
      : options_(options), module_(options.module), instance_(module_, engine_, options.name) {
    host_.setLogSink(printLog);
  }

  int run() {
    if (instance_.start(options_.config) != 0) {
      fmt::print(stderr, "gatewayctl: the module refused {}; its own messages above tell why.\n",
                 options_.config);
      return 1;
    }
    const Started started{instance_};
    applySettings();
    return attend();
  }

 private:
  // Stops the module again, whatever ends the session.
  struct Started {
    standin::ModuleInstance& instance;
    ~Started() { instance.stop(); }
  };

  void applySettings();
  int attend();
  bool obey(const std::string& line);
  void set(const std::vector<std::string>& namesAndValues);
  Slot engineSlot(const std::string& name) const;
  void showChanges();

  const Options& options_;
  tools::SignalDescriptor signals_;
  standin::Host host_{{.keepRecords = false}};
  standin::Engine engine_;
  standin::LoadedModule module_;
  standin::ModuleInstance instance_;
  tools::InputLines input_;
  std::map<const void*, std::string> shown_;
};

// All of them in one notification.
void Session::applySettings() {
  std::vector<std::string> namesAndValues;
  for (const std::string& setting : options_.settings) {
    const std::size_t equals = setting.find('=');
    namesAndValues.push_back(setting.substr(0, equals));
    namesAndValues.push_back(setting.substr(equals + 1));
  }
  if (!namesAndValues.empty()) set(namesAndValues);
}

// Until a signal, `quit` or the end of the time; returns the exit code.
int Session::attend() {
  const auto period = std::chrono::duration_cast<Clock::duration>(
      std::chrono::duration<double>(1 / options_.watchRate));
  const auto end = tools::momentIn(options_.seconds);
  auto nextWatch = options_.watch ? Clock::now() : Clock::time_point::max();

  for (;;) {
    const auto now = Clock::now();
    if (now >= end) return 0;
    if (now >= nextWatch) {
      showChanges();
      nextWatch = now + period;
    }
    const Arrival arrival = tools::waitFor(signals_, &input_, std::min(end, nextWatch));
    if (arrival == Arrival::Signal) return 130;
    if (arrival != Arrival::Input) continue;
    for (const std::string& line : input_.take()) {
      if (!obey(line)) return 0;
    }
  }
}

// False for the command that ends the session.
bool Session::obey(const std::string& line) {
  const auto words = tools::wordsOf(line);
  if (words.empty()) return true;
  const std::string_view command = words.front();
  if (command == "quit") return false;
  try {
    if (command == "slots") {
      for (const Slot& slot : instance_.slots()) print(describe(slot));
    } else if (command == "set") {
      set(std::vector<std::string>(words.begin() + 1, words.end()));
    } else {
      throw std::invalid_argument(
          fmt::format("no command \"{}\": there are slots, set and quit", command));
    }
  } catch (const std::invalid_argument& error) {
    fmt::print(stderr, "gatewayctl: {}\n", error.what());
  }
  return true;
}

void Session::set(const std::vector<std::string>& namesAndValues) {
  if (namesAndValues.empty() || namesAndValues.size() % 2 != 0) {
    throw std::invalid_argument("set takes pairs of a name and a value");
  }
  std::vector<std::pair<Slot, SlotValue>> changes;
  for (std::size_t i = 0; i < namesAndValues.size(); i += 2) {
    const Slot slot = engineSlot(namesAndValues[i]);
    changes.emplace_back(slot, parseValue(slot, namesAndValues[i + 1]));
  }
  instance_.set(changes);
}

Slot Session::engineSlot(const std::string& name) const {
  std::vector<std::string> names;
  for (const Slot& slot : instance_.slots(SlotSet::Engine)) {
    if (slot.name() == name) return slot;
    names.push_back(slot.name());
  }
  throw std::invalid_argument(
      fmt::format("no engine slot \"{}\": there are {}", name,
                  names.empty() ? "none" : fmt::format("{}", fmt::join(names, ", "))));
}

void Session::showChanges() {
  for (const Slot& slot : instance_.slots()) {
    std::string line = describe(slot);
    std::string& last = shown_[slot.description.value];
    if (line == last) continue;
    print(line);
    last = std::move(line);
  }
}

}  // namespace

void addHost(CLI::App& app, int& exitCode) {
  const auto options = std::make_shared<Options>();
  options->module = defaultModulePath();
  CLI::App* const host = app.add_subcommand("host", "Runs the module in a stand-in for the engine");
  host->footer(manual);
  host->add_option("CONFIG", options->config, "Configuration file")->required();
  host->add_option("--module", options->module, "The module's file")->capture_default_str();
  host->add_option("--name", options->name, "Name of the module instance")
      ->capture_default_str()
      ->check([](const std::string& name) {
        return name.size() <= 31 ? "" : "has more than 31 bytes";
      });
  host->add_flag("--watch", options->watch, "Print each slot when its value has changed");
  host->add_option("--watch-rate", options->watchRate, "Looks at the slots per second")
      ->capture_default_str()
      ->check(CLI::Range(0.1, 20.0));
  host->add_option("--for", options->seconds, "End after so many seconds")
      ->check(CLI::NonNegativeNumber);
  host->add_option("--set", options->settings, "NAME=VALUE: change an engine slot after the start")
      ->check([](const std::string& setting) {
        return setting.find('=') != std::string::npos ? "" : "takes NAME=VALUE";
      });
  host->callback([options, &exitCode] { exitCode = Session(*options).run(); });
}
