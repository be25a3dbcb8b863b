#include "tools/discover/discover.h"

#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "manual.h"
#include "standin/Host.h"
#include "tools/common/ExitCode.h"
#include "tools/common/Json.h"
#include "tools/common/Listener.h"
#include "tools/common/ManualText.h"
#include "tools/common/Numbers.h"
#include "tools/common/Output.h"
#include "tools/common/Shown.h"
#include "tools/common/StreamProblems.h"
#include "tools/discover/Draft.h"
#include "tools/discover/Merge.h"
#include "tools/discover/Selection.h"
#include "tools/recording/HeardRecording.h"

namespace discover {
namespace {

using nlohmann::ordered_json;
using standin::SlotSet;
using tools::ExitCode;
using tools::Heard;
using tools::namesOf;
using tools::shown;

struct Options {
  std::string target;
  std::string recording;  // to read instead of listening; empty for none
  double seconds = 5;
  Selection selection;
  Naming naming;
  std::string merge;
  bool json = false;
};

// What is known once the time is over.
struct Outcome {
  Draft draft;
  std::vector<std::string> problems{};
  std::size_t excluded = 0;  // keys that the selection does not take
  std::vector<tools::ConfiguredSlot> silent{};
};

// ---- Writing --------------------------------------------------------------------------------

std::string_view typeNameOf(const tools::ConfiguredSlot& slot) {
  const auto types = tools::wireTypes();
  return std::find_if(types.begin(), types.end(),
                      [&](const tools::WireType& type) { return type.slotType == slot.type; })
      ->name;
}

ordered_json jsonOf(const Finding& finding) {
  const auto types = namesOf(finding.seen.types);
  ordered_json key{{"rate", nameOf(finding.seen.rate)},
                   {"key", finding.seen.key},
                   {"type", types.size() == 1 ? types.front() : "several"},
                   {"types", types},
                   {"messages", finding.seen.messages},
                   {"carried", finding.hasEntry()}};
  if (finding.isConfigured) key["configured"] = true;
  if (!finding.hasEntry()) key["reason"] = finding.omitted;
  if (!finding.customKey.empty()) key["customKey"] = finding.customKey;
  return key;
}

ordered_json jsonOf(const tools::ConfiguredSlot& slot) {
  return {{"rate", nameOf(slot.set)},
          {"key", slot.key},
          {"type", typeNameOf(slot)},
          {"name", slot.name}};
}

std::string documentOf(const Options& options, const Outcome& outcome, const Heard& heard) {
  ordered_json document{{"target", options.target},         {"seconds", options.seconds},
                        {"streams", ordered_json::array()}, {"problems", outcome.problems},
                        {"excluded", outcome.excluded},     {"keys", ordered_json::array()}};
  for (const auto rate : {SlotSet::Fast, SlotSet::Slow}) {
    const auto& seen = heard.sightings.messagesOf(rate);
    document["streams"].push_back(
        {{"rate", nameOf(rate)}, {"messages", seen.messages}, {"unreadable", seen.unreadable}});
  }
  for (const Finding& finding : outcome.draft.findings) {
    document["keys"].push_back(jsonOf(finding));
  }
  if (options.merge.empty()) return tools::jsonText(document, 2) + "\n";
  document["silent"] = ordered_json::array();
  for (const auto& slot : outcome.silent) document["silent"].push_back(jsonOf(slot));
  return tools::jsonText(document, 2) + "\n";
}

std::string configurationOf(const Options& options, Outcome outcome) {
  Draft& draft = outcome.draft;
  draft.remarks = {
      fmt::format("What a meter server sent within {} seconds, written by gatewayctl "
                  "discover.",
                  options.seconds)};
  draft.remarks.insert(draft.remarks.end(), outcome.problems.begin(), outcome.problems.end());
  std::string text = textOf(draft);
  checkReadsBack(draft, text);
  return text;
}

void write(const std::string& text) {
  tools::writeOut(text);
  if (tools::outputFailed()) throw std::runtime_error("can't write to standard output");
}

// ---- Messages -------------------------------------------------------------------------------

int failWithoutKeys(const Options& options, const Outcome& outcome, const Heard& heard) {
  for (const auto& problem : outcome.problems) tools::say("discover", problem);
  if (options.json) write(documentOf(options, outcome, heard));
  return ExitCode::Failed;
}

void sayOmitted(const Draft& draft) {
  for (const Finding& finding : draft.findings) {
    if (finding.hasEntry()) continue;
    tools::say("discover", fmt::format("{} {}: {}.", nameOf(finding.seen.rate),
                                       shown(finding.seen.key), finding.omitted));
  }
}

int failWithoutEntries(const Outcome& outcome) {
  const bool isEmpty = outcome.draft.findings.empty();
  tools::say("discover",
             isEmpty
                 ? "nothing is written, because --include and --exclude leave out all keys"
                 : "nothing is written, because the module can carry none of the keys that came:");
  sayOmitted(outcome.draft);
  return ExitCode::Failed;
}

void saySilent(const Options& options, const Outcome& outcome) {
  constexpr std::size_t shownAtMost = 20;
  const auto& silent = outcome.silent;
  for (std::size_t i = 0; i < std::min(silent.size(), shownAtMost); ++i) {
    tools::say("discover", fmt::format("warning: {} has the {} key {} as {}, which did not come.",
                                       options.merge, nameOf(silent[i].set), shown(silent[i].key),
                                       typeNameOf(silent[i])));
  }
  if (silent.size() <= shownAtMost) return;
  tools::say("discover", fmt::format("warning: {} more of its meters did not come; --json has all.",
                                     silent.size() - shownAtMost));
}

// ---- A run ----------------------------------------------------------------------------------

Outcome outcomeOf(const Options& options, const std::optional<Existing>& existing,
                  const Heard& heard) {
  Outcome outcome;
  for (const auto& problem : tools::problemsOf(options.target, options.seconds, heard)) {
    outcome.problems.push_back(tools::sentencesOf(problem));
  }
  auto keys = heard.sightings.keys();
  outcome.excluded =
      std::erase_if(keys, [&](const SeenKey& seen) { return !options.selection.takes(seen.key); });
  outcome.draft = existing ? draftOf(existing->target(), keys, options.naming, existing->known())
                           : draftOf(options.target, keys, options.naming);
  if (existing) outcome.silent = existing->silent(heard.sightings);
  return outcome;
}

int report(const Options& options, const std::optional<Existing>& existing, const Heard& heard) {
  const Outcome outcome = outcomeOf(options, existing, heard);
  if (heard.sightings.keys().empty()) return failWithoutKeys(options, outcome, heard);
  for (const auto& problem : outcome.problems) tools::say("discover", "warning: " + problem);
  if (!options.json && !outcome.draft.hasEntries()) return failWithoutEntries(outcome);
  if (existing && !options.json) {
    saySilent(options, outcome);
    sayOmitted(outcome.draft);
  }
  if (options.json)
    write(documentOf(options, outcome, heard));
  else
    write(existing ? existing->with(outcome.draft) : configurationOf(options, outcome));
  return ExitCode::Done;
}

// A check for CLI11: it returns an error message, or nothing.
std::string checkTarget(const std::string& text) {
  const std::string complaint = complaintAboutTarget(text);
  if (complaint.empty()) return {};
  return fmt::format(
      "a configuration can't hold the target {}: {}. Use one such as 127.0.0.1:50005", shown(text),
      complaint);
}

// The target is that of the recording, unless the command line names another.
int reportRecording(Options options, const std::optional<Existing>& existing) {
  const auto recorded = recording::heardIn(options.recording);
  if (!recorded.warning.empty()) tools::say("discover", "warning: " + recorded.warning);
  if (options.target.empty()) options.target = recorded.target;
  const std::string complaint = checkTarget(options.target);
  if (!complaint.empty()) {
    throw std::runtime_error(fmt::format("in {}, {}", options.recording, complaint));
  }
  options.seconds = recorded.seconds;
  return report(options, existing, recorded.heard);
}

int run(const Options& options) {
  if (options.target.empty() && options.recording.empty()) {
    throw CLI::ValidationError("TARGET is missing: name a meter server, or use --from");
  }
  standin::Host host{{.keepRecords = false}};
  host.setLogSink([](const standin::LogLine& line) { tools::say("discover", line.text); });
  const auto existing =
      options.merge.empty() ? std::nullopt : std::optional(Existing::read(options.merge));
  if (!options.recording.empty()) return reportRecording(options, existing);
  const tools::Listening listening = tools::listen(options.target, options.seconds);
  if (listening.wasInterrupted) {
    tools::say("discover", "interrupted; nothing is written");
    return ExitCode::Interrupted;
  }
  return report(options, existing, listening.heard);
}

// ---- Command line ---------------------------------------------------------------------------

std::string checkRenaming(const std::string& text) {
  try {
    const Renaming renaming(text);
    return {};
  } catch (const std::invalid_argument& error) {
    return fmt::format("{}. Use one such as 's/^mixer\\.//'", error.what());
  }
}

}  // namespace
}  // namespace discover

void addDiscover(CLI::App& app, int& exitCode) {
  auto* command =
      app.add_subcommand("discover", "Write a configuration for all that a meter server sends");
  const auto options = std::make_shared<discover::Options>();
  command->footer(tools::manualOf(discover::manual_txt));
  command->add_option("TARGET", options->target, "The meter server, such as 127.0.0.1:50005.")
      ->check(discover::checkTarget, "");
  auto* seconds = command->add_option("--for", options->seconds, "How long to listen.");
  seconds->type_name("SECONDS")
      ->check(tools::numbersFrom(0.001, 86400.0), "")
      ->capture_default_str();
  command
      ->add_option("--from", options->recording,
                   "Read a recording of gatewayctl record instead of listening. The configuration "
                   "gets its target, unless TARGET is given.")
      ->type_name("FILE")
      ->excludes(seconds);
  command->add_flag("--custom-keys", options->naming.namesAll,
                    "Name each slot after its key, with CustomKey=.");
  command
      ->add_option_function<std::vector<std::string>>(
          "--rename",
          [options](const auto& expressions) {
            for (const auto& each : expressions) options->naming.renamings.emplace_back(each);
          },
          "Name the slots of matching keys after the changed key. May be repeated.")
      ->type_name("s/PATTERN/NAME/")
      ->allow_extra_args(false)
      ->check(discover::checkRenaming, "");
  command
      ->add_option("--include", options->selection.include,
                   "Take only keys that match, such as 'out.*'. May be repeated.")
      ->type_name("PATTERN")
      ->allow_extra_args(false);
  command
      ->add_option("--exclude", options->selection.exclude,
                   "Leave out keys that match. May be repeated.")
      ->type_name("PATTERN")
      ->allow_extra_args(false);
  command
      ->add_option("--merge", options->merge,
                   "Write this configuration, and add the keys that it does not have.")
      ->type_name("FILE");
  command->add_flag("--json", options->json, "Write what arrived as a JSON document instead.");
  command->callback([options, &exitCode] { exitCode = discover::run(*options); });
}
