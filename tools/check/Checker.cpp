#include "tools/check/Checker.h"

#include <optional>
#include <utility>

#include "standin/Host.h"
#include "tools/check/Judge.h"

namespace check {
namespace {

constexpr std::size_t keptLogLines = 50;

// What the module reads in place of the file, if there is an overlay.
std::optional<OverlaidCopy> copyOf(const Request& request) {
  if (request.overlay.empty()) return std::nullopt;
  return std::make_optional<OverlaidCopy>(request.path, request.limits, request.overlay);
}

// Lets the module read the file, and keeps its verdict and its log.
void askModule(const Request& request, Checked& checked) {
  const std::optional<OverlaidCopy> copy = copyOf(request);
  standin::Host& host = standin::Host::current();
  host.setLogSink([&](const standin::LogLine& line) {
    if (checked.log.size() < keptLogLines) checked.log.push_back({line.level, line.text});
  });
  const gateway::ConfigManager config(copy ? copy->path() : request.path);
  host.setLogSink({});
  checked.moduleWasAsked = true;
  checked.verdict = config.valid ? Verdict::Accepted : Verdict::Refused;
  const bool hasSlots = config.valid ? request.withSlots : request.withRefusedSlots;
  if (!hasSlots) return;
  checked.slots = tools::slotsOf(config);
  checked.settings = tools::settingsOf(config);
}

}  // namespace

std::string_view nameOf(Verdict verdict) {
  switch (verdict) {
    case Verdict::Accepted:
      return "accepted";
    case Verdict::Refused:
      return "refused";
    case Verdict::Unreadable:
      break;
  }
  return "unreadable";
}

Checked check(const Request& request) {
  Checked checked{.file = request.name};
  Findings findings(request.allowed);
  try {
    Judged judged = judge(request.path, request.name, request.limits, request.overlay,
                          request.server, findings);
    checked.verdict = Verdict::Refused;
    checked.files = std::move(judged.files);
    checked.entries = std::move(judged.entries);
    if (judged.reading == Reading::Finite) askModule(request, checked);
  } catch (const UncheckableFile& error) {
    checked.reason = error.what();
  }
  for (const Severity severity : {Severity::Error, Severity::Warning, Severity::Note}) {
    checked.counts[static_cast<std::size_t>(severity)] = findings.count(severity);
  }
  checked.omitted = findings.omitted();
  checked.diagnostics = findings.take();
  return checked;
}

}  // namespace check
