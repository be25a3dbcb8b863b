#include "tools/top/top.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <variant>

#include "manual.h"
#include "tools/common/Configuration.h"
#include "tools/common/ExitCode.h"
#include "tools/common/ManualText.h"
#include "tools/common/Numbers.h"
#include "tools/common/Output.h"
#include "tools/common/Terminal.h"
#include "tools/common/Words.h"
#include "tools/host/ConfigWatch.h"
#include "tools/host/ModuleOptions.h"
#include "tools/host/Reporter.h"
#include "tools/top/Screen.h"
#include "tools/top/TerminalType.h"
#include "tools/top/View.h"

namespace top {
namespace {

using host::RunningModule;
using tools::Arrival;
using tools::ExitCode;

constexpr std::chrono::milliseconds lookPeriod{50};
constexpr std::chrono::milliseconds drawPeriod{100};

struct Options {
  host::Setup setup;
  Sorting sorting;
  std::string filter;
  bool reloads = false;
  bool isBatch = false;
  std::optional<unsigned> screens;  // with isBatch
  double delay = 2;                 // with isBatch: seconds
};

class Run {
 public:
  explicit Run(const Options& options) : options_(options) {
    if (!options.isBatch) terminalSignals_.emplace();
    signals_.emplace();
  }

  // Returns the exit code.
  int operator()();

 private:
  int showScreen(RunningModule& module);
  int printScreens(RunningModule& module);
  void look(RunningModule& module, View& view);
  void reload(RunningModule& module);
  static bool obey(Screen& screen, View& view);
  View viewOf(const RunningModule& module) const;
  void log(const standin::LogLine& line);
  void logStandardError(ErrorLines& lines);
  static int judge(const host::Leftovers& leftovers);

  const Options& options_;
  // Made in this order, because the second starts a thread. Without a screen, a terminal's Ctrl-Z
  // suspends the program as usual.
  std::optional<TerminalSignals> terminalSignals_;
  std::optional<tools::SignalDescriptor> signals_;
  host::LogBook logBook_;
  std::optional<host::ConfigWatch> configWatch_;
  // Log lines also go to standard error, unless that is the terminal of the screen.
  const bool logsToStandardError_ = options_.isBatch || isatty(STDERR_FILENO) != 1;
};

int Run::operator()() {
  // Without the signal, writing a line fails once its reader has gone, and the module is stopped.
  std::signal(SIGPIPE, SIG_IGN);
  if (!options_.isBatch) requireScreen();
  try {
    // Before the module starts, so that no later change is missed.
    if (options_.reloads) configWatch_.emplace(options_.setup.config);
    RunningModule module(options_.setup, [this](const auto& line) { log(line); });
    const int code = options_.isBatch ? printScreens(module) : showScreen(module);
    // Stopping can take seconds.
    if (!logsToStandardError_) tools::say("top", "stopping the module");
    const int verdict = judge(module.stop());
    return verdict == ExitCode::Done ? code : verdict;
  } catch (const host::Refused& refused) {
    if (!logsToStandardError_) {
      for (const auto& line : logBook_.linesFrom(0).lines) host::printLog(line);
    }
    tools::say("top", tools::printable(refused.what()));
    tools::explainRefusal(options_.setup.config);
    return ExitCode::Failed;
  }
}

void Run::log(const standin::LogLine& line) {
  logBook_.add(line);
  if (logsToStandardError_) host::printLog(line);
}

View Run::viewOf(const RunningModule& module) const {
  View view(module, logBook_);
  view.filter(options_.filter);
  view.sort(options_.sorting);
  return view;
}

void Run::look(RunningModule& module, View& view) {
  if (configWatch_ && configWatch_->hasChanged(Clock::now())) reload(module);
  module.sample();
  view.update();
}

// While the screen is up, the log takes what would go to standard error.
void Run::reload(RunningModule& module) {
  try {
    const std::size_t changes = module.reload(*configWatch_).size();
    log({.time = std::chrono::system_clock::now(),
         .level = SONALITH_LOG_TRACE,
         .file = "gatewayctl",
         .line = 0,
         .one = 0,
         .text = fmt::format("reloaded {}: {} slots, {} changed", options_.setup.config,
                             module.board()->labels().size(), changes)});
  } catch (const host::Refused& refused) {
    tools::say("top", tools::printable(refused.what()));
    tools::explainRefusal(options_.setup.config);
  } catch (const std::runtime_error& error) {
    tools::say("top", tools::printable(error.what()));
  }
}

// Reports what a stopped module left behind; returns the exit code.
int Run::judge(const host::Leftovers& leftovers) {
  for (const auto& problem : leftovers.problems()) tools::say("top", tools::printable(problem));
  return leftovers.isClean() ? ExitCode::Done : ExitCode::Failed;
}

// ---- On a terminal --------------------------------------------------------------------------

// Runs until a signal or the key that ends the program; returns the exit code.
int Run::showScreen(RunningModule& module) {
  // What libraries write to standard error, if that is the terminal of the screen.
  std::optional<ErrorLines> errors;
  Screen screen(*terminalSignals_);
  if (!logsToStandardError_) errors.emplace();
  View view = viewOf(module);
  auto nextLook = Clock::now();
  auto nextDrawing = nextLook;
  for (;;) {
    const auto now = Clock::now();
    if (now >= nextLook) {
      look(module, view);
      nextLook = now + lookPeriod;
    }
    if (now >= nextDrawing) {
      if (errors) logStandardError(*errors);
      screen.draw(view.picture(screen.size()));
      nextDrawing = now + drawPeriod;
    }
    const auto arrival =
        tools::waitFor(*signals_, screen.descriptor(), std::min(nextLook, nextDrawing));
    if (arrival == Arrival::Signal) return ExitCode::Interrupted;
    if (arrival != Arrival::Input) continue;
    if (!obey(screen, view)) return ExitCode::Done;
    nextDrawing = Clock::now();  // shows at once what the keys did
  }
}

// False for the key that ends the program.
bool Run::obey(Screen& screen, View& view) {
  for (const Screen::Press& press : screen.keys()) {
    const bool goesOn = std::visit([&](auto key) { return view.press(key); }, press);
    if (!goesOn) return false;
  }
  return !screen.hasEnded();
}

void Run::logStandardError(ErrorLines& lines) {
  for (const std::string& text : lines.take()) {
    logBook_.add({.time = std::chrono::system_clock::now(),
                  .level = SONALITH_LOG_ERROR,
                  .file = "standard error",
                  .line = 0,
                  .one = 0,
                  .text = text});
  }
}

// ---- For programs ---------------------------------------------------------------------------

// Prints screens until a signal, or as many as are wanted; returns the exit code.
int Run::printScreens(RunningModule& module) {
  View view = viewOf(module);
  for (unsigned printed = 0; printed != options_.screens; ++printed) {
    const auto nextScreen = tools::momentIn(options_.delay);
    do {
      const auto nextLook = std::min(nextScreen, Clock::now() + lookPeriod);
      if (tools::waitFor(*signals_, nullptr, nextLook) == Arrival::Signal) {
        return ExitCode::Interrupted;
      }
      look(module, view);
    } while (Clock::now() < nextScreen);
    tools::writeOut((printed > 0 ? "\n" : "") + view.plainText());
    if (!tools::outputFailed()) continue;
    tools::say("top", "can't write to standard output");
    return ExitCode::Failed;
  }
  return ExitCode::Done;
}

// ---- Command line ---------------------------------------------------------------------------

void addOptions(CLI::App& command, Options& options) {
  host::addModuleOptions(command, options.setup);
  host::addReloadOption(command, options.reloads);
  command
      .add_option("--filter", options.filter,
                  "Show only slots whose name or key contains each of these words.")
      ->type_name("WORDS");
  command
      .add_option_function<std::string>(
          "--sort",
          [&](const auto& order) { options.sorting = sortingBy(std::string_view(order)); },
          "Sort the slots. Value and changes begin with the greatest.")
      ->type_name("ORDER")
      ->default_str(std::string(nameOf(Order::Configured)))
      ->check(CLI::IsMember(std::vector<std::string>(orderNames.begin(), orderNames.end())));
  auto* batch = command.add_flag(
      "-b,--batch", options.isBatch,
      "Print the screens as plain text, without a terminal. The first comes after one delay.");
  command.add_option("-n,--screens", options.screens, "With --batch, end after N screens.")
      ->type_name("N")
      ->check(tools::numbersFrom(1u, 1000000000u), "")
      ->needs(batch);
  command.add_option("-d,--delay", options.delay, "With --batch, the time between screens.")
      ->type_name("SECONDS")
      ->capture_default_str()
      ->check(tools::numbersFrom(0.1, 86400.0), "")
      ->needs(batch);
}

}  // namespace
}  // namespace top

void addTop(CLI::App& app, int& exitCode) {
  constexpr std::size_t keyColumn = 20;
  const auto options = std::make_shared<top::Options>();
  CLI::App* const command =
      app.add_subcommand("top", "Run the module and show its levels on the terminal");
  top::addOptions(*command, *options);
  command->footer(tools::manualOf(top::manual_txt, {{"keys", top::View::manual(keyColumn)}}));
  command->callback([options, &exitCode] {
    options->isBatch ? top::useUtf8() : top::followLocale();
    exitCode = top::Run(*options)();
  });
}
