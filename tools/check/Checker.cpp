#include "tools/check/Checker.h"

#include "standin/Host.h"
#include "tools/check/Judge.h"

namespace check {
namespace {

constexpr std::size_t keptLogLines = 50;

// Lets the module read the file, and keeps its verdict and its log.
void askModule(const Request& request, Checked& checked) {
  standin::Host& host = standin::Host::current();
  host.setLogSink([&](const standin::LogLine& line) {
    if (checked.log.size() < keptLogLines) checked.log.push_back({line.level, line.text});
  });
  const gateway::ConfigManager config(request.path);
  host.setLogSink({});
  checked.moduleWasAsked = true;
  checked.verdict = config.valid ? Verdict::Accepted : Verdict::Refused;
  if (config.valid && request.withSlots) checked.slots = tools::slotsOf(config);
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
    const Reading reading = judge(request.path, request.name, request.limits, findings);
    checked.verdict = Verdict::Refused;
    if (reading == Reading::Finite) askModule(request, checked);
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
