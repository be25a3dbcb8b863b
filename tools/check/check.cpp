#include "tools/check/check.h"

#include <fmt/ranges.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <new>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "manual.h"
#include "standin/Host.h"
#include "standin/MemoryFile.h"
#include "tools/check/Checker.h"
#include "tools/check/Comparison.h"
#include "tools/check/ComparisonReport.h"
#include "tools/check/Formats.h"
#include "tools/check/Repairs.h"
#include "tools/check/Report.h"
#include "tools/check/Target.h"
#include "tools/check/Text.h"
#include "tools/common/ExitCode.h"
#include "tools/common/Json.h"
#include "tools/common/Listener.h"
#include "tools/common/ManualText.h"
#include "tools/common/Numbers.h"
#include "tools/common/Output.h"
#include "tools/common/StreamProblems.h"
#include "tools/common/Suggestion.h"
#include "tools/recording/HeardRecording.h"

namespace check {
namespace {

using tools::ExitCode;

struct Options {
  std::vector<std::string> files;
  std::set<Rule> allowed;
  bool strict = false;
  Format format = Format::Text;
  bool slots = false;
  bool listRules = false;
  std::optional<std::string> compared;  // an older configuration
  std::string server;                   // to compare the meters with; empty for none
  double seconds = 30;                  // how long to listen to it
  std::string fix;                      // how bold; empty if nothing is to be repaired
  bool diff = false;
  std::string explained;
};

// ---- Repairing --------------------------------------------------------------------------------

Boldness boldnessOf(const Options& options) {
  return options.fix == "unsafe" ? Boldness::Likely : Boldness::Safe;
}

// Prints or makes the repairs, if any are requested. Returns the check of the file after them.
Checked checkOrRepair(const Request& request, const Options& options) {
  if (options.fix.empty() && !options.diff) return check(request);
  const Repaired repaired = repair(request, boldnessOf(options));
  if (options.diff) {
    const std::string diff = unifiedDiff(request.name, repaired.before, repaired.after);
    tools::writeOut(isatty(STDOUT_FILENO) == 1 ? visibleLines(diff) : diff);
  } else if (repaired.after != repaired.before) {
    replaceFile(request.path, repaired.before, repaired.after);
  }
  return repaired.checked;
}

// Standard input as a file that can be read twice.
void copyInput(const standin::MemoryFile& file) {
  constexpr std::size_t most = std::size_t{1} << 30;
  std::array<char, 65536> buffer;
  std::size_t size = 0;
  for (ssize_t got = 0; (got = read(STDIN_FILENO, buffer.data(), buffer.size())) != 0;) {
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) throw UncheckableFile(std::strerror(errno));
    size += static_cast<std::size_t>(got);
    if (size > most) throw UncheckableFile("it has more than 1 GiB");
    if (::write(file.descriptor(), buffer.data(), static_cast<std::size_t>(got)) != got) {
      throw UncheckableFile(std::strerror(errno));
    }
  }
}

// ---- Listening --------------------------------------------------------------------------------

// The meters that a server should send.
tools::Sightings expectationsOf(const Checked& checked) {
  tools::Sightings sightings;
  for (const tools::ConfiguredSlot& slot : checked.slots) {
    const bool isFast = slot.set == standin::SlotSet::Fast && checked.settings.fastMeters;
    const bool isSlow = slot.set == standin::SlotSet::Slow && checked.settings.slowMeters;
    if (isFast || isSlow) sightings.expect(slot.set, slot.key, slot.type);
  }
  return sightings;
}

HeardServer heardNow(const Options& options, tools::Sightings expected) {
  tools::Listening listening = tools::listen(options.server, options.seconds, std::move(expected));
  const double seconds = listening.wasInterrupted ? listening.seconds : options.seconds;
  auto problems = tools::problemsOf(options.server, seconds, listening.heard);
  return {.name = options.server,
          .seconds = seconds,
          .wasReached = listening.heard.wasReached(),
          .sightings = std::move(listening.heard.sightings),
          .problems = std::move(problems)};
}

HeardServer heardBefore(const std::string& path, tools::Sightings expected) {
  auto recorded = recording::heardIn(path, std::move(expected));
  if (!recorded.warning.empty()) tools::say("check", "warning: " + recorded.warning);
  auto problems = tools::problemsOf(recorded.target, recorded.seconds, recorded.heard);
  return {.name = path,
          .seconds = recorded.seconds,
          .wasReached = recorded.heard.wasReached(),
          .sightings = std::move(recorded.heard.sightings),
          .problems = std::move(problems)};
}

bool isFile(const std::string& path) {
  std::error_code error;
  return std::filesystem::is_regular_file(path, error);
}

// What the server sends for the meters of the file. Returns nothing if there are none, or if the
// module refuses the file. Throws std::runtime_error for a recording that can't be read.
std::optional<HeardServer> hear(Request request, const Options& options) {
  request.withSlots = true;
  const Checked checked = check(request);
  if (checked.verdict != Verdict::Accepted) return std::nullopt;
  tools::Sightings expected = expectationsOf(checked);
  if (expected.countExpected() == 0) {
    tools::say("check", fmt::format("{} has no meters to compare with the server", request.name));
    return std::nullopt;
  }
  return isFile(options.server) ? heardBefore(options.server, std::move(expected))
                                : heardNow(options, std::move(expected));
}

// "127.0.0.1:50005 sends 11 of the 12 meters".
std::string summaryOf(const HeardServer& server) {
  const std::size_t all = server.sightings.countExpected();
  return fmt::format("{} sends {} of the {}", server.name, all - server.sightings.countMissing(),
                     counted(all, "meter"));
}

Checked compareWithServer(Request request, const Options& options) {
  std::optional<HeardServer> server;
  try {
    server = hear(request, options);
  } catch (const std::runtime_error& error) {
    return {.file = request.name, .reason = error.what()};
  }
  if (!server) return checkOrRepair(request, options);
  request.server = &*server;
  Checked checked = checkOrRepair(request, options);
  checked.lacksServer = !server->wasReached;
  checked.serverSummary = summaryOf(*server);
  return checked;
}

Checked checkRequest(const Request& request, const Options& options) {
  return options.server.empty() ? checkOrRepair(request, options)
                                : compareWithServer(request, options);
}

// ---- Running ----------------------------------------------------------------------------------

Checked checkFile(const std::string& file, const Options& options) {
  Request request{.path = file,
                  .name = file,
                  .allowed = options.allowed,
                  .withSlots = options.slots || options.format == Format::Json || options.compared};
  if (file != "-") {
    try {
      return checkRequest(request, options);
    } catch (const std::runtime_error& error) {
      return {.file = file, .reason = fmt::format("its repair failed: {}", error.what())};
    }
  }
  request.name = "<stdin>";
  const standin::MemoryFile input;
  try {
    copyInput(input);
  } catch (const UncheckableFile& error) {
    return {.file = request.name, .reason = error.what()};
  }
  request.path = input.path();
  return checkRequest(request, options);
}

int exitCodeOf(const Checked& checked, bool strict) {
  if (checked.verdict == Verdict::Unreadable) return ExitCode::WrongUse;
  if (checked.verdict == Verdict::Refused) return ExitCode::Failed;
  if (checked.lacksServer) return ExitCode::WrongUse;
  return strict && checked.count(Severity::Warning) > 0 ? ExitCode::AcceptedWithWarnings
                                                        : ExitCode::Done;
}

// The worst exit code of several files counts.
int worse(int a, int b) {
  constexpr std::array<int, 4> fromWorst = {ExitCode::WrongUse, ExitCode::Failed,
                                            ExitCode::AcceptedWithWarnings, ExitCode::Done};
  return *std::find_if(fromWorst.begin(), fromWorst.end(),
                       [&](int code) { return code == a || code == b; });
}

// If verdict and diagnostics disagree, the checker itself is wrong. It says so.
void reportContradiction(const Checked& checked) {
  const bool isRefused = checked.verdict == Verdict::Refused;
  if (checked.verdict == Verdict::Unreadable) return;
  if (isRefused == (checked.count(Severity::Error) > 0)) return;
  tools::say("check", fmt::format("{}: the module {} this file, but the diagnostics say otherwise",
                                  checked.file, isRefused ? "refuses" : "accepts"));
  for (const ModuleLine& line : checked.log) {
    tools::say("check", fmt::format("{}: the module logs: {}", checked.file, line.text));
  }
}

void print(const Checked& checked, const Options& options) {
  if (checked.verdict == Verdict::Unreadable) {
    tools::say("check", fmt::format("can't check {}: {}", checked.file, checked.reason));
  }
  if (options.format != Format::Text || options.diff) return;
  tools::writeOut(textOf(checked, tools::showsColours(STDOUT_FILENO)));
  if (!checked.serverSummary.empty()) {
    tools::writeOut(fmt::format("{}: {}\n", checked.file, checked.serverSummary));
  }
  if (options.slots && checked.verdict == Verdict::Accepted) {
    tools::writeOut(tableOf(checked.slots));
  }
}

int run(const Options& options) {
  const standin::Host host({.keepRecords = false});
  int code = ExitCode::Done;
  std::vector<Checked> files;
  for (const std::string& file : options.files) {
    Checked checked = checkFile(file, options);
    print(checked, options);
    reportContradiction(checked);
    code = worse(code, exitCodeOf(checked, options.strict));
    if (options.format != Format::Text) files.push_back(std::move(checked));
  }
  tools::writeOut(documentOf(options.format, files, code));
  if (!tools::outputFailed()) return code;
  tools::say("check", "can't write to standard output");
  return ExitCode::WrongUse;
}

// ---- Comparing --------------------------------------------------------------------------------

// Says why the file can't be compared, if so.
bool isComparable(const std::string& file, const Checked& checked) {
  if (checked.verdict == Verdict::Accepted) return true;
  if (checked.verdict == Verdict::Unreadable) {
    tools::say("check", fmt::format("can't check {}: {}", checked.file, checked.reason));
    return false;
  }
  tools::say("check", fmt::format("can't compare {}, because the module refuses it; see why with: "
                                  "gatewayctl check {}",
                                  checked.file, file));
  return false;
}

int runComparison(const Options& options) {
  const standin::Host host({.keepRecords = false});
  const std::string& file = options.files.front();
  const Checked before = checkFile(*options.compared, options);
  const Checked after = checkFile(file, options);
  const bool isOldGood = isComparable(*options.compared, before);
  if (!isComparable(file, after) || !isOldGood) return ExitCode::WrongUse;
  const Comparison comparison =
      compare({before.settings, before.slots}, {after.settings, after.slots});
  const int code = comparison.affectsHost() ? ExitCode::Failed : ExitCode::Done;
  if (options.format == Format::Json) {
    nlohmann::json document = jsonOf(comparison);
    document.update(
        {{"version", 1}, {"exit_code", code}, {"old", before.file}, {"new", after.file}});
    tools::writeOut(tools::jsonText(document, 2) + "\n");
  } else {
    tools::writeOut(textOf(comparison, before.file, after.file));
  }
  if (!tools::outputFailed()) return code;
  tools::say("check", "can't write to standard output");
  return ExitCode::WrongUse;
}

// ---- Command line -----------------------------------------------------------------------------

std::string checkRule(const std::string& name) {
  if (Rule::named(name)) return {};
  return fmt::format("there is no rule \"{}\"{} (--list-rules prints them all)", name,
                     tools::didYouMean(name, ruleNames()));
}

std::string checkAllowed(const std::string& name) {
  const auto rule = Rule::named(name);
  if (!rule) return checkRule(name);
  if (canBeAllowed(rule->text().weight)) return {};
  return fmt::format("{} is not a warning and can't be switched off", name);
}

std::string checkTarget(const std::string& target) {
  if (isFile(target)) return {};
  return target.empty() ? "the target is empty: write HOST:PORT" : complaintAboutTarget(target);
}

// The names of rules as CLI11 describes the choices of an option.
std::string rulesThat(bool (*fit)(Weight)) {
  std::vector<std::string_view> names;
  for (const RuleText& rule : allRules) {
    if (fit(rule.weight)) names.push_back(rule.name);
  }
  return fmt::format("{{{}}}", fmt::join(names, ","));
}

bool namesInput(const Options& options) {
  return std::find(options.files.begin(), options.files.end(), "-") != options.files.end();
}

int obey(const Options& options) {
  if (options.listRules) {
    tools::writeOut(ruleList());
  } else if (!options.explained.empty()) {
    tools::writeOut(explanationOf(Rule::named(options.explained)->text()));
  } else if (options.files.empty()) {
    throw CLI::ValidationError(
        "FILE is missing: name a configuration file, or - for standard input");
  } else if (!options.fix.empty() && !options.diff && namesInput(options)) {
    throw CLI::ValidationError("--fix can't write to standard input: add --diff, or name a file");
  } else if ((options.slots || options.compared) && options.format > Format::Json) {
    throw CLI::ValidationError(
        fmt::format("{} needs --format text or json", options.slots ? "--slots" : "--compare"));
  } else if (!options.server.empty() && options.files.size() > 1) {
    throw CLI::ValidationError("--against takes one FILE");
  } else if (options.compared) {
    if (options.files.size() > 1 || (options.compared == "-" && namesInput(options))) {
      throw CLI::ValidationError("--compare needs two files, the old one and the new one");
    }
    return runComparison(options);
  } else {
    return run(options);
  }
  return ExitCode::Done;
}

void addReportOptions(CLI::App& command, Options& options) {
  command.add_option("FILE", options.files, "The configuration files. \"-\" is standard input.")
      ->type_name("FILE");
  command.add_flag("--strict", options.strict, "End with exit code 3 if there are warnings.");
  CLI::Option* const format =
      command
          .add_option_function<std::string>(
              "--format", [&](const auto& name) { options.format = formatNamed(name); },
              "Print the report in this format: text for people, or one document for programs.")
          ->type_name("FORMAT")
          ->check(CLI::IsMember(formatNames()));
  command
      .add_flag_callback(
          "--json", [&] { options.format = Format::Json; }, "The same as --format json.")
      ->excludes(format);
  command.add_flag("--slots", options.slots,
                   "Print the slots that the host will see. The format has to be text or json.");
  command
      .add_option_function<std::vector<std::string>>(
          "--allow",
          [&](const auto& names) {
            for (const std::string& name : names) options.allowed.insert(*Rule::named(name));
          },
          "Ignore the warnings of a rule. Can be repeated.")
      ->type_name("RULE")
      ->allow_extra_args(false)
      ->check(checkAllowed, rulesThat(canBeAllowed));
}

void addRepairs(CLI::App& command, Options& options) {
  command
      .add_flag("--fix{safe}", options.fix,
                "Repair the files where only one repair is possible. --fix=unsafe also makes those "
                "that are only likely to be right.")
      ->check(CLI::IsMember({"safe", "unsafe"}));
  command
      .add_flag("--diff", options.diff, "Print the repairs as a unified diff, and change no file.")
      ->excludes(command.get_option("--format"))
      ->excludes(command.get_option("--json"))
      ->excludes(command.get_option("--slots"));
}

// What the file can be compared with.
void addComparisons(CLI::App& command, Options& options) {
  command
      .add_option("--compare", options.compared,
                  "Say what changes for the host if FILE replaces this older configuration.")
      ->type_name("FILE")
      ->excludes(command.get_option("--diff"))
      ->excludes(command.get_option("--fix"))
      ->excludes(command.get_option("--slots"))
      ->excludes(command.get_option("--strict"))
      ->excludes(command.get_option("--allow"));
  CLI::Option* const against =
      command
          .add_option("--against", options.server,
                      "Compare the meters with what this meter server sends, such as "
                      "127.0.0.1:50005, or with a recording.")
          ->type_name("TARGET")
          ->check(checkTarget, "")
          ->excludes(command.get_option("--compare"));
  command
      .add_option("--for", options.seconds,
                  "How long to listen to the server. It stops earlier once all meters have come.")
      ->type_name("SECONDS")
      ->check(tools::numbersFrom(0.001, 86400.0), "")
      ->needs(against)
      ->capture_default_str();
}

void addOptions(CLI::App& command, Options& options) {
  addReportOptions(command, options);
  addRepairs(command, options);
  addComparisons(command, options);
  command.add_flag("--list-rules", options.listRules, "Print all rules, and nothing else.");
  command
      .add_option("--explain", options.explained,
                  "Print the explanation of a rule, and nothing else.")
      ->type_name("RULE")
      ->check(checkRule, rulesThat([](Weight) { return true; }));
}

}  // namespace
}  // namespace check

void addCheck(CLI::App& app, int& exitCode) {
  const auto options = std::make_shared<check::Options>();
  CLI::App* const command =
      app.add_subcommand("check", "Explain what the module makes of configuration files");
  check::addOptions(*command, *options);
  command->footer(tools::manualOf(check::manual_txt));
  command->callback([options, &exitCode] { exitCode = check::obey(*options); });
}
