#include "tools/discover/discover.h"

#include <fmt/format.h>
#include <google/protobuf/stubs/logging.h>
#include <grpc/grpc.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "standin/Host.h"
#include "tools/common/Json.h"
#include "tools/common/Numbers.h"
#include "tools/common/Output.h"
#include "tools/common/Terminal.h"
#include "tools/discover/Draft.h"
#include "tools/discover/Listener.h"
#include "tools/discover/Problems.h"
#include "tools/discover/Shown.h"

namespace discover {
namespace {

using nlohmann::ordered_json;
using standin::SlotSet;
using tools::Arrival;
using tools::Clock;

constexpr char manual[] =
    "Example: write a configuration for all that a server sends within half a minute\n"
    "  gatewayctl discover 127.0.0.1:50005 --for 30 > grpc-gateway.conf\n"
    "\n"
    "Keys that come rarely need a longer time. What can't be carried stands as a comment with the\n"
    "reason. A stream that fails is told of on standard error and in a comment; the other one is\n"
    "written all the same. Only a whole configuration is written, which has been read back as the\n"
    "module reads it; an interrupted run writes nothing.\n"
    "\n"
    "With --json it writes one document instead, also if nothing came (exit code 1) or nothing of\n"
    "it can be carried:\n"
    "  target, seconds   as given\n"
    "  streams           of each: rate (fast, slow), messages, unreadable\n"
    "  problems          what went wrong with streams, a text each\n"
    "  keys              fast before slow and first seen first, of each: rate, key, type, types,\n"
    "                    messages (in which it was), carried, then reason if it is not, and\n"
    "                    customKey if it has one\n"
    "type is string, int, uint, float, double, \"float array\", \"int array\", \"uint array\", "
    "none\n"
    "(no value) or several; types has them all.\n"
    "\n"
    "Exit codes: 0 done, 1 nothing came that could be written, 2 wrong use, 130 interrupted.";

struct Options {
  std::string target;
  double seconds = 5;
  bool customKeys = false;
  bool json = false;
};

void say(std::string_view text) {
  tools::writeError(fmt::format("gatewayctl discover: {}\n", text));
}

// ---- Listening ------------------------------------------------------------------------------

enum class Ending { Done, Interrupted };

Ending waitForEnd(const tools::SignalDescriptor& signals, const Listener& listener,
                  Clock::time_point deadline) {
  while (Clock::now() < deadline) {
    switch (tools::waitFor(signals, listener.overDescriptor(), deadline)) {
      case Arrival::Nothing:
        break;
      case Arrival::Signal:
        return Ending::Interrupted;
      case Arrival::Input:
        return Ending::Done;
    }
  }
  return Ending::Done;
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
  host.setLogSink([](const standin::LogLine& line) { say(line.text); });
  checkReadsBack(draft, text);
  return text;
}

void write(const std::string& text) {
  tools::writeOut(text);
  if (tools::outputFailed()) throw std::runtime_error("can't write to standard output");
}

int failWithoutKeys(const Options& options, const Heard& heard,
                    const std::vector<std::string>& problems) {
  for (const auto& problem : problems) say(problem);
  if (options.json) write(documentOf(options, {}, heard, problems));
  return 1;
}

int failWithoutEntries(const Draft& draft) {
  say("nothing is written, because the module can carry none of the keys that came:");
  for (const Finding& finding : draft.findings) {
    say(fmt::format("{} {}: {}.", nameOf(finding.seen.rate), shown(finding.seen.key),
                    finding.omitted));
  }
  return 1;
}

int report(const Options& options, const Heard& heard) {
  const auto problems = problemsOf(options.target, options.seconds, heard);
  const auto keys = heard.sightings.keys();
  if (keys.empty()) return failWithoutKeys(options, heard, problems);
  for (const auto& problem : problems) say("warning: " + problem);
  const Draft draft = draftOf(options.target, keys, options.customKeys);
  if (!options.json && !draft.hasEntries()) return failWithoutEntries(draft);
  write(options.json ? documentOf(options, draft, heard, problems)
                     : configurationOf(options, draft, problems));
  return 0;
}

int run(const Options& options) {
  constexpr int interruptedCode = 130;
  // Before any thread starts, because threads inherit which signals are blocked.
  const tools::SignalDescriptor signals;
  // Without grpc_shutdown: that can wait ten seconds for one of gRPC's threads, which the end of
  // the process ends anyway.
  grpc_init();
  // Keeps protobuf from logging texts that are not UTF-8: Sightings explains them better.
  google::protobuf::SetLogHandler(nullptr);
  const auto deadline = tools::momentIn(options.seconds);
  Listener listener(options.target);
  if (waitForEnd(signals, listener, deadline) == Ending::Interrupted) {
    say("interrupted; nothing is written");
    return interruptedCode;
  }
  return report(options, listener.finish());
}

// ---- Command line ---------------------------------------------------------------------------

// Checks for CLI11: they return an error message, or nothing.
std::string checkSeconds(const std::string& text) {
  constexpr double shortest = 0.001;
  constexpr double longest = 86400;
  return tools::checkNumber(text, shortest, longest);
}

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
  auto* command = app.add_subcommand(
      "discover", "Listens to a meter server and writes a configuration with all that it sends");
  const auto options = std::make_shared<discover::Options>();
  command->footer(discover::manual);
  command->add_option("TARGET", options->target, "The meter server, such as 127.0.0.1:50005")
      ->required()
      ->type_name("")
      ->check(discover::checkTarget, "");
  command->add_option("--for", options->seconds, "How long to listen")
      ->type_name("SECONDS")
      ->check(discover::checkSeconds, "")
      ->capture_default_str();
  command->add_flag("--custom-keys", options->customKeys,
                    "Name each slot after its key, by CustomKey=");
  command->add_flag("--json", options->json, "Write what was seen as a JSON document instead");
  command->callback([options, &exitCode] { exitCode = discover::run(*options); });
}
