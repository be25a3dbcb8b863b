#include "tools/host/host.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <exception>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "manual.h"
#include "tools/common/Configuration.h"
#include "tools/common/ExitCode.h"
#include "tools/common/Json.h"
#include "tools/common/ManualText.h"
#include "tools/common/Numbers.h"
#include "tools/common/Output.h"
#include "tools/common/Terminal.h"
#include "tools/host/ConfigWatch.h"
#include "tools/host/Console.h"
#include "tools/host/Cycles.h"
#include "tools/host/Expectations.h"
#include "tools/host/LogBook.h"
#include "tools/host/ModuleOptions.h"
#include "tools/host/PageServer.h"
#include "tools/host/PageSettings.h"
#include "tools/host/ReadyFile.h"
#include "tools/host/Reporter.h"
#include "tools/host/RunningModule.h"
#include "tools/host/SessionRecorder.h"

namespace host {
namespace {

using tools::Arrival;
using tools::ExitCode;

struct Options {
  Setup setup;
  bool json = false;
  bool watch = false;
  double watchRate = 20;
  std::optional<double> seconds;
  unsigned cycles = 0;
  std::vector<Change> settings;
  std::vector<Expectation> expected;
  std::string junit;  // path of the report; empty for none
  bool noPage = false;
  PageSettings page;
  std::string readyFile;
  bool reloads = false;
  std::string record;  // path of the recording; empty for none
};

// ---- Running --------------------------------------------------------------------------------

// What all ways to run a module share.
class Run {
 public:
  explicit Run(const Options& options) : options_(options), reporter_(options.json) {}

  // Returns the exit code.
  int operator()() {
    // The next line fails when its reader has gone, and then the module is stopped.
    std::signal(SIGPIPE, SIG_IGN);
    const int code = run();
    reporter_.finish();
    if (!reporter_.hasFailed()) return code;
    tools::say("host", "can't write to standard output");
    return ExitCode::Failed;
  }

 private:
  int run() {
    try {
      return options_.cycles > 0 ? cycle() : attend();
    } catch (const Refused& refused) {
      explain(refused);
      return ExitCode::Failed;
    } catch (const std::exception& error) {
      reporter_.complain(error.what());
      return ExitCode::Failed;
    }
  }

  void explain(const Refused& refused) const;
  int attend();
  int attend(RunningModule& module);
  int judge(const Expectations& expectations) const;
  std::unique_ptr<PageServer> openPage(RunningModule& module) const;
  void follow(const RunningModule& module);
  void reload(RunningModule& module, Expectations& expectations);
  void watch(const RunningModule& module);
  void printLinks(const RunningModule& module);
  void printNotifications(const RunningModule& module);
  int cycle();
  void log(const standin::LogLine& line);
  int judge(const Leftovers& leftovers) const;

  const Options& options_;
  tools::SignalDescriptor signals_;
  tools::InputLines input_;
  const Reporter reporter_;
  LogBook logBook_;
  std::optional<ConfigWatch> configWatch_;
  std::optional<ReadyFile> readyFile_;
  std::optional<SessionRecorder> session_;
  std::optional<std::uint64_t> watched_;  // the last look whose changes have been printed
  unsigned notificationsPrinted_ = 0;
  std::uint64_t deliveriesPrinted_ = 0;
  std::array<std::optional<LinkState>, 3> linksPrinted_;
};

void Run::log(const standin::LogLine& line) {
  logBook_.add(line);
  printLog(line);
}

void Run::explain(const Refused& refused) const {
  reporter_.complain(refused.what());
  tools::explainRefusal(options_.setup.config);
}

int Run::attend() {
  // Both before the module starts: a file that an earlier run has left must not tell of this one,
  // and no later change of the configuration is missed.
  readyFile_.emplace(options_.readyFile);
  if (options_.reloads) configWatch_.emplace(options_.setup.config);
  Setup setup = options_.setup;
  if (!options_.record.empty()) setup.tapped = session_.emplace(options_.record).tap();
  RunningModule module(setup, [this](const auto& line) { log(line); });
  follow(module);
  reporter_.started(module);
  if (!options_.settings.empty()) module.set(options_.settings);
  const int code = attend(module);
  readyFile_.reset();
  const int verdict = judge(module.stop());
  const std::string lost = session_ ? session_->close() : "";
  if (!lost.empty()) reporter_.complain(lost);
  if (verdict != ExitCode::Done) return verdict;
  return lost.empty() ? code : ExitCode::Failed;
}

void Run::follow(const RunningModule& module) {
  if (session_) session_->follow(module.metersTarget());
}

// Runs until a signal, `quit` or the end of the time; returns the exit code.
int Run::attend(RunningModule& module) {
  constexpr std::chrono::milliseconds lookPeriod(50);
  const auto watchPeriod = std::chrono::duration_cast<Clock::duration>(
      std::chrono::duration<double>(1 / options_.watchRate));
  const auto end = tools::momentIn(options_.seconds);
  auto nextLook = Clock::now();
  auto nextWatch = options_.watch ? nextLook : Clock::time_point::max();
  Expectations expectations(options_.expected, module.board(), nextLook);
  const bool isTest = !options_.expected.empty();
  Console console(module, reporter_);
  const auto page = openPage(module);

  for (;;) {
    const auto now = Clock::now();
    if (now >= nextLook) {
      if (configWatch_ && configWatch_->hasChanged(now)) reload(module, expectations);
      module.sample();
      if (isTest && expectations.check(now)) return judge(expectations);
      nextLook = now + lookPeriod;
      readyFile_->show(module.isReady());
      printLinks(module);
    }
    printNotifications(module);
    if (now >= nextWatch) {
      watch(module);
      nextWatch = now + watchPeriod;
    }
    if (reporter_.hasFailed() || (session_ && session_->hasFailed())) return ExitCode::Failed;
    if (now >= end) return judge(expectations);
    const Arrival arrival = tools::waitFor(signals_, &input_, std::min({end, nextLook, nextWatch}));
    if (arrival == Arrival::Signal) return ExitCode::Interrupted;
    if (arrival != Arrival::Input) continue;
    for (const std::string& line : input_.take()) {
      const bool goesOn = console.obey(line);
      printNotifications(module);
      if (!goesOn) return judge(expectations);
    }
  }
}

void Run::reload(RunningModule& module, Expectations& expectations) {
  try {
    const auto changes = module.reload(*configWatch_);
    follow(module);
    expectations.follow(module.board());
    reporter_.reloaded(module, changes);
    // Print all slots and links again.
    watched_.reset();
    linksPrinted_ = {};
  } catch (const Refused& refused) {
    explain(refused);
  } catch (const std::runtime_error& error) {
    reporter_.complain(error.what());
  }
}

// Reports what a run showed; returns the exit code.
int Run::judge(const Expectations& expectations) const {
  for (const auto& outcome : expectations.outcomes()) reporter_.decided(outcome);
  if (!options_.junit.empty()) {
    std::ofstream file(options_.junit);
    file << junitOf(expectations.outcomes()) << std::flush;
    if (!file) throw std::runtime_error(fmt::format("can't write {}", options_.junit));
  }
  return expectations.areMet() ? ExitCode::Done : ExitCode::Failed;
}

std::unique_ptr<PageServer> Run::openPage(RunningModule& module) const {
  if (options_.noPage) return nullptr;
  auto page = std::make_unique<PageServer>(module, logBook_, options_.page);
  if (page->hasMoved()) {
    tools::say("host", fmt::format("{} is taken, so the live page is at {}",
                                   textOf(options_.page.address), page->url()));
  }
  reporter_.page(page->url());
  return page;
}

// Those of all origins (--set, a command, or the live page), and what became of them.
void Run::printNotifications(const RunningModule& module) {
  // First, so that none of them belongs to a notification that has not been printed.
  const auto deliveries = module.deliveriesSince(deliveriesPrinted_);
  for (const auto& notification : module.notificationsAfter(notificationsPrinted_)) {
    reporter_.notified(notification);
    notificationsPrinted_ = notification.number;
  }
  deliveriesPrinted_ = deliveries.next;
  for (const auto& [number, delivery] : deliveries.changed) reporter_.delivered(number, delivery);
}

// Prints each link at first, and again whenever its state has changed.
void Run::printLinks(const RunningModule& module) {
  if (!options_.watch && !options_.json) return;
  const Links links = module.links();
  for (std::size_t i = 0; i < links.size(); ++i) {
    if (linksPrinted_[i] == links[i].state) continue;
    linksPrinted_[i] = links[i].state;
    reporter_.linkChanged(links[i], Clock::now());
  }
}

// Prints all slots at first, then those that have changed.
void Run::watch(const RunningModule& module) {
  const auto& labels = module.board()->labels();
  const auto changes = module.board()->changesSince(watched_.value_or(0));
  if (!watched_) {
    const auto states = module.board()->states();
    for (std::size_t i = 0; i < labels.size(); ++i) {
      reporter_.slotChanged(labels[i], states[i], changes.time);
    }
  } else {
    for (const auto& [i, state] : changes.slots) {
      reporter_.slotChanged(labels[i], state, changes.time);
    }
  }
  watched_ = changes.look;
}

int Run::cycle() {
  Arrival arrival = Arrival::Nothing;
  Setup setup = options_.setup;
  setup.watchesCalls = false;
  const auto report = runCycles(
      setup, options_.cycles, [this](const auto& line) { log(line); },
      [&] {
        arrival = tools::waitFor(signals_, nullptr, tools::momentIn(options_.seconds.value_or(0)));
        return arrival != Arrival::Signal;
      });
  reporter_.cycles(report);
  if (!report.leftovers.isClean()) return ExitCode::Failed;
  return arrival == Arrival::Signal ? ExitCode::Interrupted : ExitCode::Done;
}

// Reports what a stopped module left behind; returns the exit code.
int Run::judge(const Leftovers& leftovers) const {
  for (const auto& problem : leftovers.problems()) reporter_.complain(problem);
  return leftovers.isClean() ? ExitCode::Done : ExitCode::Failed;
}

// ---- Command line ---------------------------------------------------------------------------

void addSettings(std::vector<Change>& settings, const std::vector<std::string>& texts) {
  for (const std::string& text : texts) {
    const std::size_t equals = text.find('=');
    if (equals == text.npos) {
      throw CLI::ValidationError("--set", fmt::format("\"{}\" is not NAME=VALUE", text));
    }
    settings.push_back({text.substr(0, equals), text.substr(equals + 1)});
  }
}

void addExpectations(std::vector<Expectation>& expected, const std::vector<std::string>& texts) {
  try {
    for (const std::string& text : texts) expected.push_back(parseExpectation(text));
  } catch (const std::invalid_argument& error) {
    throw CLI::ValidationError("--expect", error.what());
  }
}

void setPageAddress(PageSettings& page, const std::string& text) {
  try {
    PageSettings given = parsePageAddress(text);
    given.token = page.token;
    page = given;
  } catch (const std::invalid_argument& error) {
    throw CLI::ValidationError("--page", error.what());
  }
}

// The first line of the file.
std::string tokenIn(const std::string& path) try {
  tools::requireReadable(path);
  std::ifstream file(path);
  std::string token;
  std::getline(file, token);
  if (token.empty()) throw std::runtime_error(fmt::format("{} has no token", path));
  return token;
} catch (const std::runtime_error& error) {
  throw CLI::ValidationError("--token-file", error.what());
}

// Returns the option that can't be combined with --cycles.
CLI::Option* addTestOptions(CLI::App& host, Options& options) {
  auto* expect = host.add_option_function<std::vector<std::string>>(
      "--expect", [&](const auto& texts) { addExpectations(options.expected, texts); },
      "End once each expectation is met or its time is over; fail unless all are met. Can be "
      "repeated.");
  expect->type_name("EXPECTATION")->allow_extra_args(false);
  host.add_option("--junit", options.junit,
                  "Write the outcome of the expectations to this file, in JUnit's format.")
      ->type_name("FILE")
      ->needs(expect);
  return expect;
}

// Returns the option that can't be combined with --cycles.
CLI::Option* addReadyOptions(CLI::App& host, Options& options) {
  auto* file = host.add_option("--ready-file", options.readyFile,
                               "Keep this file in existence while the module is ready: while each "
                               "meter stream in use has received a message lately.");
  file->type_name("FILE");
  host.add_option("--ready-age", options.setup.readyAge,
                  "How old a stream's latest message may be for --ready-file and GET /ready.")
      ->type_name("SECONDS")
      ->capture_default_str()
      ->check(tools::numbersFrom(0.1, 86400.0), "");
  return file;
}

// Returns the options that can't be combined with --cycles.
std::array<CLI::Option*, 3> addPageOptions(CLI::App& host, Options& options) {
  auto* page = host.add_option_function<std::string>(
      "--page", [&](const auto& text) { setPageAddress(options.page, text); },
      "Where to serve the live page. If the default port is taken, the page gets a free one.");
  page->type_name("ADDRESS:PORT")->default_str(textOf(options.page.address));
  auto* noPage = host.add_flag("--no-page", options.noPage, "Serve no live page.")->excludes(page);
  auto* token = host.add_option(
      "--token", options.page.token,
      "Demand this token from every client of the live page. A browser opens /?token=TOKEN, a "
      "program sends the header \"Authorization: Bearer TOKEN\". An address that other machines "
      "can reach requires a token. All users of this machine can read it in the list of processes; "
      "--token-file avoids that.");
  token->type_name("TOKEN")->excludes(noPage);
  auto* tokenFile = host.add_option_function<std::string>(
      "--token-file", [&](const auto& path) { options.page.token = tokenIn(path); },
      "Demand the token in this file, as --token does.");
  tokenFile->type_name("FILE")->excludes(noPage)->excludes(token);
  return {page, token, tokenFile};
}

// A check for CLI11: it returns an error message, or nothing.
std::string checkRecording(const std::string& path) {
  if (path != "-") return {};
  return "standard output has the lines of the host, so a recording needs a file";
}

void addOptions(CLI::App& host, Options& options) {
  addModuleOptions(host, options.setup);
  host.add_flag("--json", options.json, "Print JSON lines.");
  auto* watch = host.add_flag(
      "--watch", options.watch,
      "Print each slot when its value changes, and each connection when its state changes.");
  host.add_option("--watch-rate", options.watchRate,
                  "With --watch, print at most N changes of a slot per second, 0.1 to 20.")
      ->type_name("N")
      ->capture_default_str()
      ->check(tools::numbersFrom(0.1, 20.0), "");
  host.add_option("--for", options.seconds,
                  "Stop the module after this time. With --cycles, the time of each cycle.")
      ->type_name("SECONDS")
      ->check(tools::checkSeconds, "");
  auto* set = host.add_option_function<std::vector<std::string>>(
      "--set", [&](const auto& texts) { addSettings(options.settings, texts); },
      "Change engine slots right after the start, all in one notification.");
  set->type_name("NAME=VALUE");
  auto* expect = addTestOptions(host, options);
  const auto page = addPageOptions(host, options);
  auto* ready = addReadyOptions(host, options);
  auto* reload = addReloadOption(host, options.reloads);
  auto* record = host.add_option("--record", options.record,
                                 "Record both meter streams and the calls to the engine service. "
                                 "See RECORDING.");
  record->type_name("FILE")->check(checkRecording, "");
  auto* cycles = host.add_option("--cycles", options.cycles,
                                 "Start and stop the module N times, then report what it left "
                                 "behind.");
  cycles->type_name("N")->check(tools::numbersFrom(1u, 1000000u), "");
  cycles->excludes(watch)->excludes(set)->excludes(expect)->excludes(ready)->excludes(reload);
  cycles->excludes(record);
  for (CLI::Option* option : page) cycles->excludes(option);
}

}  // namespace
}  // namespace host

void addHost(CLI::App& app, int& exitCode) {
  const auto options = std::make_shared<host::Options>();
  CLI::App* const command =
      app.add_subcommand("host", "Run the module in a stand-in for the engine");
  host::addOptions(*command, *options);
  command->footer(tools::manualOf(host::manual_txt, {{"commands", host::Console::manual()}}));
  command->callback([options, &exitCode] {
    const std::string problem = host::pageProblem(options->page);
    if (!problem.empty()) throw CLI::ValidationError("--page", problem);
    exitCode = host::Run(*options)();
  });
}
