#include "tools/probe/probe.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include "manual.h"
#include "tools/common/Listener.h"
#include "tools/common/ManualText.h"
#include "tools/common/Numbers.h"
#include "tools/common/Output.h"
#include "tools/common/Terminal.h"
#include "tools/probe/Probe.h"
#include "tools/probe/Report.h"

namespace probe {
namespace {

struct Options {
  std::string target;
  std::string engine;
  int level = highestLevel;
  double seconds = Limits().listening.count();
  std::optional<std::string> junit;
  bool json = false;
};

bool probeAll(const Site& site, const Options& options) {
  try {
    probeMeters(site, options.target);
    if (options.engine.empty()) {
      site.results.skipRest(true, "no --engine was given");
    } else {
      probeEngine(site, options.engine);
    }
    return true;
  } catch (const Interrupted&) {
    for (const bool ofEngine : {false, true}) site.results.skipRest(ofEngine, "interrupted");
    return false;
  }
}

// Before the probe starts, so that it does not run for nothing.
std::ofstream reportFile(const Options& options) {
  std::ofstream file;
  if (!options.junit) return file;
  file.open(*options.junit);
  if (!file) throw std::runtime_error(fmt::format("can't write the report {}", *options.junit));
  return file;
}

int run(const Options& options) {
  std::ofstream file = reportFile(options);
  // Before any thread starts, because threads inherit which signals are blocked.
  const tools::SignalDescriptor signals;
  tools::prepareToListen();
  const std::size_t width = std::min(tools::columnsOf(STDOUT_FILENO), std::size_t{100});
  Results results(options.level, [&](const Result& result) {
    if (!options.json) tools::writeOut(textOf(result, width));
  });
  const Waiter waiter(signals);
  Limits limits;
  limits.listening = Limits::Seconds(options.seconds);
  const bool isComplete = probeAll({waiter, limits, results}, options);
  const Outcome outcome{.target = options.target,
                        .engine = options.engine,
                        .level = options.level,
                        .wasInterrupted = !isComplete,
                        .results = results.all()};
  tools::writeOut(options.json ? jsonOf(outcome) : "\n" + summaryOf(outcome));
  if (options.junit && !(file << junitOf(outcome) << std::flush)) {
    throw std::runtime_error(fmt::format("can't write the report {}", *options.junit));
  }
  return outcome.exitCode();
}

// A check for CLI11: it returns an error message, or nothing.
std::string checkTarget(const std::string& text) {
  return text.empty() ? "the target is empty. Use one such as 127.0.0.1:50005" : "";
}

}  // namespace
}  // namespace probe

void addProbe(CLI::App& app, int& exitCode) {
  auto* command =
      app.add_subcommand("probe", "Say whether a server is fit for the gateway, check by check");
  const auto options = std::make_shared<probe::Options>();
  command->footer(tools::manualOf(probe::manual_txt, {{"levels", probe::manualOfLevels()},
                                                      {"checks", probe::manualOfChecks()}}));
  command->add_option("TARGET", options->target, "The meter server, such as 127.0.0.1:50005.")
      ->required()
      ->check(probe::checkTarget, "");
  command
      ->add_option("--engine", options->engine,
                   "The engine service. Without it, its checks are skipped.")
      ->type_name("TARGET")
      ->check(probe::checkTarget, "");
  command->add_option("--level", options->level, "The highest level to try. See LEVELS.")
      ->type_name("1..5")
      ->check(tools::numbersFrom(1, probe::highestLevel), "")
      ->capture_default_str();
  command
      ->add_option("--for", options->seconds,
                   "From level 3, listen to the streams for at least this long.")
      ->type_name("SECONDS")
      ->check(tools::numbersFrom(0.001, 86400.0), "")
      ->capture_default_str();
  command->add_option("--junit", options->junit, "Write a report for CI in JUnit's format.")
      ->type_name("FILE");
  command->add_flag("--json", options->json, "Print one JSON document instead. See JSON.");
  command->callback([options, &exitCode] { exitCode = probe::run(*options); });
}
