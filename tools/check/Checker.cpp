#include "tools/check/Checker.h"

#include "standin/Host.h"

namespace check {
namespace {

constexpr std::size_t keptLogLines = 50;

// Has the module read the file, and listens to it.
void askModule(const Order& order, Checked& checked) {
  standin::Host& host = standin::Host::current();
  host.setLogSink([&](const standin::LogLine& line) {
    if (checked.log.size() < keptLogLines) checked.log.push_back({line.level, line.text});
  });
  const gateway::ConfigManager config(order.path);
  host.setLogSink({});
  checked.moduleWasAsked = true;
  checked.verdict = config.valid ? Verdict::Accepted : Verdict::Refused;
  if (config.valid && order.withSlots) checked.slots = tools::slotsOf(config);
}

}  // namespace

std::string_view nameOf(Verdict verdict) {
  switch (verdict) {
    case Verdict::Accepted:
      return "accepted";
    case Verdict::Refused:
      return "refused";
    default:
      return "unreadable";
  }
}

Checked check(const Order& order) {
  Checked checked{.file = order.name};
  Findings findings(order.allowed);
  try {
    const Ending ending = walk(order.path, order.name, findings, order.limits);
    checked.verdict = Verdict::Refused;
    if (ending == Ending::Regular) askModule(order, checked);
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
