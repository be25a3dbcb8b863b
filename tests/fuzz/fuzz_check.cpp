// Any bytes as a configuration of up to three files for the checker. It must end, report errors
// exactly if the module refuses the configuration, and be able to write every report.
#include <algorithm>
#include <functional>
#include <string>
#include <string_view>

#include "module/grpc-gateway/ConfigManager.h"
#include "standin/Host.h"
#include "tests/fuzz/ConfigurationFiles.h"
#include "tests/fuzz/Target.h"
#include "tools/check/Checker.h"
#include "tools/check/Formats.h"
#include "tools/check/Report.h"

namespace {

using check::Checked;
using check::Severity;
using check::Verdict;
using fuzz::require;

// The checker asks the module for the verdict, unless the module would never return.
void requireVerdict(const Checked& checked, bool mayLoop) {
  const bool hasErrors = checked.count(Severity::Error) > 0;
  require((checked.verdict == Verdict::Refused) == hasErrors, "a refused file has errors");
  require(checked.verdict != Verdict::Unreadable, "there is a verdict");
  require(checked.moduleWasAsked || mayLoop, "the checker asks the module unless reading may loop");
  if (!checked.moduleWasAsked) return require(hasErrors, "the checker refuses an endless file");
  const gateway::ConfigManager config(fuzz::ConfigurationFiles::mainPath);
  require(config.valid == (checked.verdict == Verdict::Accepted), "the verdict is the module's");
}

// Each place lies within its source line, so that a caret can mark it.
void requirePlaces(const Checked& checked) {
  for (const auto& each : checked.diagnostics) {
    require(!each.text.empty() && !each.remedy.empty(), "a diagnostic has a text and a remedy");
    if (each.line == 0) continue;
    require(
        each.column >= each.sourceColumn && each.column - each.sourceColumn <= each.source.size(),
        "a place lies in its line");
  }
}

// Texts take far longer than the verdict, so only one input in 32 makes them, chosen by its bytes.
bool isForTexts(std::string_view input) {
  return std::hash<std::string_view>()(input) % 32 == 0;
}

void requireTexts(const Checked& checked) {
  require(!check::textOf(checked, true).empty(), "there is a report");
  require(!check::tableOf(checked.slots).empty(), "there is a table");
  for (const std::string& name : check::formatNames()) {
    const check::Format format = check::formatNamed(name);
    if (format == check::Format::Text || format == check::Format::Github) continue;
    require(!check::documentOf(format, {checked}, 0).empty(), "there is a document");
  }
  const std::string commands = check::documentOf(check::Format::Github, {checked}, 0);
  const auto lines = static_cast<std::size_t>(std::count(commands.begin(), commands.end(), '\n'));
  require(lines == checked.diagnostics.size() + (checked.omitted.empty() ? 0 : 1),
          "each diagnostic is one command");
}

}  // namespace

fuzz::Result fuzz::tryInput(std::string_view input) {
  static standin::Host host({.keepRecords = false});
  static ConfigurationFiles files;
  if (!files.write(input)) return Result::Skipped;
  const Checked checked =
      check::check({.path = ConfigurationFiles::mainPath, .name = "input", .withSlots = true});
  requireVerdict(checked, files.mayLoop());
  requirePlaces(checked);
  if (isForTexts(input)) requireTexts(checked);
  return checked.verdict == Verdict::Accepted ? Result::Accepted : Result::Refused;
}
