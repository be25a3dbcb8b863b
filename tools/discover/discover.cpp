#include "tools/discover/discover.h"

#include <fmt/format.h>
#include <google/protobuf/stubs/logging.h>
#include <grpc/grpc.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
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
#include "tools/common/Terminal.h"
#include "tools/discover/Draft.h"

namespace discover {
namespace {

using nlohmann::ordered_json;
using standin::SlotSet;
using tools::Arrival;
using tools::Clock;
using tools::ExitCode;
using tools::Heard;
using tools::Listener;
using tools::namesOf;
using tools::shown;

struct Options {
  std::string target;
  double seconds = 5;
  bool customKeys = false;
  bool json = false;
};

// ---- Listening ------------------------------------------------------------------------------

// Done when both streams have ended, or at the deadline.
ExitCode waitForEnd(const tools::SignalDescriptor& signals, const Listener& listener,
                    Clock::time_point deadline) {
  while (Clock::now() < deadline) {
    switch (tools::waitFor(signals, listener.overDescriptor(), deadline)) {
      case Arrival::Nothing:
        break;
      case Arrival::Signal:
        return ExitCode::Interrupted;
      case Arrival::Input:
        return ExitCode::Done;
    }
  }
  return ExitCode::Done;
}

// ---- Writing --------------------------------------------------------------------------------

ordered_json jsonOf(const Finding& finding) {
  const auto types = namesOf(finding.seen.types);
  ordered_json key{{"rate", nameOf(finding.seen.rate)},
                   {"key", finding.seen.key},
                   {"type", types.size() == 1 ? types.front() : "several"},
                   {"types", types},
                   {"messages", finding.seen.messages},
                   {"carried", finding.hasEntry()}};
  if (!finding.hasEntry()) key["reason"] = finding.omitted;
  if (!finding.customKey.empty()) key["customKey"] = finding.customKey;
  return key;
}

std::string documentOf(const Options& options, const Draft& draft, const Heard& heard,
                       const std::vector<std::string>& problems) {
  ordered_json document{{"target", options.target},
                        {"seconds", options.seconds},
                        {"streams", ordered_json::array()},
                        {"problems", problems},
                        {"keys", ordered_json::array()}};
  for (const auto rate : {SlotSet::Fast, SlotSet::Slow}) {
    const auto& seen = heard.sightings.messagesOf(rate);
    document["streams"].push_back(
        {{"rate", nameOf(rate)}, {"messages", seen.messages}, {"unreadable", seen.unreadable}});
  }
  for (const Finding& finding : draft.findings) document["keys"].push_back(jsonOf(finding));
  return tools::jsonText(document, 2) + "\n";
}

std::string configurationOf(const Options& options, Draft draft,
                            const std::vector<std::string>& problems) {
  draft.remarks = {
      fmt::format("What a meter server sent within {} seconds, written by gatewayctl "
                  "discover.",
                  options.seconds)};
  draft.remarks.insert(draft.remarks.end(), problems.begin(), problems.end());
  std::string text = textOf(draft);
  standin::Host host{{.keepRecords = false}};
  host.setLogSink([](const standin::LogLine& line) { tools::say("discover", line.text); });
  checkReadsBack(draft, text);
  return text;
}

void write(const std::string& text) {
  tools::writeOut(text);
  if (tools::outputFailed()) throw std::runtime_error("can't write to standard output");
}

int failWithoutKeys(const Options& options, const Heard& heard,
                    const std::vector<std::string>& problems) {
  for (const auto& problem : problems) tools::say("discover", problem);
  if (options.json) write(documentOf(options, {}, heard, problems));
  return ExitCode::Failed;
}

int failWithoutEntries(const Draft& draft) {
  tools::say("discover",
             "nothing is written, because the module can carry none of the keys that came:");
  for (const Finding& finding : draft.findings) {
    tools::say("discover", fmt::format("{} {}: {}.", nameOf(finding.seen.rate),
                                       shown(finding.seen.key), finding.omitted));
  }
  return ExitCode::Failed;
}

int report(const Options& options, const Heard& heard) {
  std::vector<std::string> problems;
  for (auto& problem : tools::problemsOf(options.target, options.seconds, heard)) {
    problems.push_back(std::move(problem.text));
  }
  const auto keys = heard.sightings.keys();
  if (keys.empty()) return failWithoutKeys(options, heard, problems);
  for (const auto& problem : problems) tools::say("discover", "warning: " + problem);
  const Draft draft = draftOf(options.target, keys, options.customKeys);
  if (!options.json && !draft.hasEntries()) return failWithoutEntries(draft);
  write(options.json ? documentOf(options, draft, heard, problems)
                     : configurationOf(options, draft, problems));
  return ExitCode::Done;
}

int run(const Options& options) {
  // Before any thread starts, because threads inherit which signals are blocked.
  const tools::SignalDescriptor signals;
  // Without grpc_shutdown: that can wait ten seconds for one of gRPC's threads, which the end of
  // the process ends anyway.
  grpc_init();
  // Keeps protobuf from logging texts that are not UTF-8: Sightings explains them better.
  google::protobuf::SetLogHandler(nullptr);
  const auto deadline = tools::momentIn(options.seconds);
  Listener listener(options.target);
  if (waitForEnd(signals, listener, deadline) == ExitCode::Interrupted) {
    tools::say("discover", "interrupted; nothing is written");
    return ExitCode::Interrupted;
  }
  return report(options, listener.finish());
}

// ---- Command line ---------------------------------------------------------------------------

// A check for CLI11: it returns an error message, or nothing.
std::string checkTarget(const std::string& text) {
  const std::string complaint = complaintAboutTarget(text);
  if (complaint.empty()) return {};
  return fmt::format(
      "a configuration can't hold the target {}: {}. Use one such as 127.0.0.1:50005", shown(text),
      complaint);
}

}  // namespace
}  // namespace discover

void addDiscover(CLI::App& app, int& exitCode) {
  auto* command =
      app.add_subcommand("discover", "Write a configuration for all that a meter server sends");
  const auto options = std::make_shared<discover::Options>();
  command->footer(tools::manualOf(discover::manual_txt));
  command->add_option("TARGET", options->target, "The meter server, such as 127.0.0.1:50005.")
      ->required()
      ->check(discover::checkTarget, "");
  command->add_option("--for", options->seconds, "How long to listen.")
      ->type_name("SECONDS")
      ->check(tools::numbersFrom(0.001, 86400.0), "")
      ->capture_default_str();
  command->add_flag("--custom-keys", options->customKeys,
                    "Name each slot after its key, with CustomKey=.");
  command->add_flag("--json", options->json, "Write what arrived as a JSON document instead.");
  command->callback([options, &exitCode] { exitCode = discover::run(*options); });
}
