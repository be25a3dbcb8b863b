#include "tools/check/check.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "standin/Host.h"
#include "standin/MemoryFile.h"
#include "tools/check/Checker.h"
#include "tools/check/Report.h"
#include "tools/common/Json.h"
#include "tools/common/Output.h"
#include "tools/common/Suggestion.h"

namespace check {
namespace {

constexpr int accepted = 0;
constexpr int refused = 1;
constexpr int wrongUse = 2;
constexpr int acceptedWithWarnings = 3;

struct Options {
  std::vector<std::string> files;
  std::set<Rule> allowed;
  bool strict = false;
  bool json = false;
  bool slots = false;
  bool listRules = false;
  std::string explained;
};

// ---- Running ----------------------------------------------------------------------------------

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
    if (write(file.descriptor(), buffer.data(), static_cast<std::size_t>(got)) != got) {
      throw UncheckableFile(std::strerror(errno));
    }
  }
}

Checked checkFile(const std::string& file, const Options& options) {
  Request request{.path = file,
                  .name = file,
                  .allowed = options.allowed,
                  .withSlots = options.slots || options.json};
  if (file != "-") return check(request);
  request.name = "<stdin>";
  const standin::MemoryFile input;
  try {
    copyInput(input);
  } catch (const UncheckableFile& error) {
    return {.file = request.name, .reason = error.what()};
  }
  request.path = input.path();
  return check(request);
}

int exitCodeOf(const Checked& checked, bool strict) {
  if (checked.verdict == Verdict::Unreadable) return wrongUse;
  if (checked.verdict == Verdict::Refused) return refused;
  return strict && checked.count(Severity::Warning) > 0 ? acceptedWithWarnings : accepted;
}

// The worst exit code of several files counts.
int worse(int a, int b) {
  constexpr std::array<int, 4> fromWorst = {wrongUse, refused, acceptedWithWarnings, accepted};
  return *std::find_if(fromWorst.begin(), fromWorst.end(),
                       [&](int code) { return code == a || code == b; });
}

// If verdict and diagnostics disagree, the checker itself is wrong. It says so.
void reportContradiction(const Checked& checked) {
  const bool isRefused = checked.verdict == Verdict::Refused;
  if (checked.verdict == Verdict::Unreadable) return;
  if (isRefused == (checked.count(Severity::Error) > 0)) return;
  fmt::print(stderr,
             "gatewayctl check: {}: the module {} this file, but the diagnostics say otherwise\n",
             checked.file, isRefused ? "refuses" : "accepts");
  for (const ModuleLine& line : checked.log) {
    fmt::print(stderr, "gatewayctl check: {}: the module logs: {}\n", checked.file, line.text);
  }
}

void print(const Checked& checked, const Options& options) {
  if (checked.verdict == Verdict::Unreadable) {
    fmt::print(stderr, "gatewayctl check: can't check {}: {}\n", checked.file, checked.reason);
  }
  if (options.json) return;
  tools::writeOut(textOf(checked, tools::showsColours(STDOUT_FILENO)));
  if (options.slots && checked.verdict == Verdict::Accepted) {
    tools::writeOut(tableOf(checked.slots));
  }
}

int run(const Options& options) {
  const standin::Host host({.keepRecords = false});
  int code = accepted;
  nlohmann::json files = nlohmann::json::array();
  for (const std::string& file : options.files) {
    const Checked checked = checkFile(file, options);
    print(checked, options);
    reportContradiction(checked);
    code = worse(code, exitCodeOf(checked, options.strict));
    if (options.json) files.push_back(jsonOf(checked));
  }
  if (options.json) {
    const nlohmann::json document = {{"version", 1}, {"exit_code", code}, {"files", files}};
    tools::writeOut(tools::jsonText(document, 2) + "\n");
  }
  if (!tools::outputFailed()) return code;
  fmt::print(stderr, "gatewayctl check: can't write to standard output\n");
  return wrongUse;
}

// ---- Command line -----------------------------------------------------------------------------

std::string manual() {
  return "Reads configuration files as the module does and tells what it will make of them, before "
         "the\nengine does: for each file the diagnostics in the order of its lines, and the "
         "verdict. It changes\nnothing. - is standard input. docs/configuration.md is the manual "
         "of the files.\n\n"
         "  FILE:LINE:COLUMN: error|warning|note: what is the matter; what to do [rule]\n\n"
         "Errors make the module refuse the configuration. Warnings are about what it reads "
         "otherwise than\nit looks; --allow RULE switches those of a rule off. Columns count bytes "
         "from 1. Colours are used\non a terminal, unless NO_COLOR is set.\n\n"
         "With --slots, the slots that the host will see follow: POSITION is that in the list of "
         "the set and\nthe type, and a GENERATED name stands for a missing CustomKey.\n\n"
         "With --json, standard output is one document:\n"
         "  version    1\n"
         "  exit_code  that of the program\n"
         "  files      an array of\n"
         "    file, verdict    accepted, refused or unreadable\n"
         "    reason           why it is unreadable, or null\n"
         "    errors, warnings, notes, omitted   how many; omitted are not listed\n"
         "    diagnostics      an array of rule, severity, file, line, column, length (bytes), "
         "text,\n"
         "                     remedy, section, read_at (FILE:LINE that named a dedicated file),\n"
         "                     source (the line); line, column, section, read_at, source may be "
         "null\n"
         "    slots            an array of set (fast, slow, engine), position, type, name,\n"
         "                     generated, key, default (null in the set engine)\n"
         "    module_log       an array of level, text: what the module logs, the first 50 "
         "lines\n\n"
         "Examples:\n"
         "  gatewayctl check /etc/sonalith/grpc-gateway.conf.example --slots\n"
         "  gatewayctl check --strict --allow rate-off /etc/sonalith/*.conf\n"
         "  gatewayctl check --explain duplicate-key\n\n"
         "Exit codes: 0 accepted, 1 refused, 2 wrong use or a file that can't be read, 3 accepted "
         "with\nwarnings under --strict. Of several files the worst counts: 2, 1, 3, 0.";
}

const RuleText& knownRule(const std::string& option, const std::string& name) {
  if (const RuleText* const rule = ruleOf(name)) return *rule;
  throw CLI::ValidationError(
      option, fmt::format("there is no rule \"{}\"{} (--list-rules prints them all)", name,
                          tools::didYouMean(name, ruleNames())));
}

void allow(Options& options, const std::vector<std::string>& names) {
  for (const std::string& name : names) {
    const RuleText& rule = knownRule("--allow", name);
    if (!canBeAllowed(rule.weight)) {
      throw CLI::ValidationError(
          "--allow", fmt::format("{} is not a warning and can't be switched off", name));
    }
    options.allowed.insert(rule.rule);
  }
}

int obey(const Options& options) {
  if (options.listRules) {
    fmt::print("{}", ruleList());
  } else if (!options.explained.empty()) {
    fmt::print("{}", explanationOf(knownRule("--explain", options.explained)));
  } else if (options.files.empty()) {
    throw CLI::ValidationError("FILE", "name a configuration file, or - for standard input");
  } else {
    return run(options);
  }
  return accepted;
}

void addOptions(CLI::App& command, Options& options) {
  command.add_option("FILE", options.files, "Configuration files; - is standard input");
  command.add_flag("--strict", options.strict, "End with 3 if there are warnings");
  command.add_flag("--json", options.json, "Write one JSON document");
  command.add_flag("--slots", options.slots, "Print the slots that the host will see");
  command
      .add_option_function<std::vector<std::string>>(
          "--allow", [&](const auto& names) { allow(options, names); },
          "Pass over the warnings of a rule; may be repeated")
      ->type_name("RULE")
      ->allow_extra_args(false);
  command.add_flag("--list-rules", options.listRules, "Print all rules");
  command.add_option("--explain", options.explained, "Explain a rule")->type_name("RULE");
}

}  // namespace
}  // namespace check

void addCheck(CLI::App& app, int& exitCode) {
  const auto options = std::make_shared<check::Options>();
  CLI::App* const command =
      app.add_subcommand("check", "Explains what the module makes of configuration files");
  check::addOptions(*command, *options);
  command->footer(check::manual());
  command->callback([options, &exitCode] { exitCode = check::obey(*options); });
}
