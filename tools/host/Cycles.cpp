#include "tools/host/Cycles.h"

#include <fmt/format.h>

#include <cstddef>

namespace host {
namespace {

using nlohmann::json;
using tools::ProcessUse;
using tools::processUse;

void add(Leftovers& all, const Leftovers& some) {
  all.notReturned.blocks += some.notReturned.blocks;
  all.notReturned.bytes += some.notReturned.bytes;
  all.notReturned.keyValueLists += some.notReturned.keyValueLists;
  all.notReturned.callbacks += some.notReturned.callbacks;
  all.violations.insert(all.violations.end(), some.violations.begin(), some.violations.end());
}

json courseOf(const CyclesReport& report, std::size_t ProcessUse::*what) {
  return {{"before", report.before.*what},
          {"after_first", report.afterFirst.*what},
          {"after_last", report.afterLast.*what}};
}

std::string courseText(const CyclesReport& report, std::size_t ProcessUse::*what) {
  return fmt::format("{} before, {} after the first cycle, {} after the last", report.before.*what,
                     report.afterFirst.*what, report.afterLast.*what);
}

}  // namespace

CyclesReport runCycles(const Setup& setup, unsigned count,
                       const std::function<void(const standin::LogLine&)>& logSink,
                       const std::function<bool()>& live) {
  CyclesReport report;
  report.before = processUse();
  for (bool more = true; more && report.cycles < count; ++report.cycles) {
    {
      RunningModule module(setup, logSink);
      more = live();
      add(report.leftovers, module.stop());
    }
    report.afterLast = processUse();
    if (report.cycles == 0) report.afterFirst = report.afterLast;
  }
  return report;
}

std::string textOf(const CyclesReport& report) {
  const auto& [blocks, bytes, lists, callbacks] = report.leftovers.notReturned;
  std::string text = fmt::format(
      "cycles            {}\n"
      "memory            {} blocks with {} bytes not returned\n"
      "key/value lists   {} not returned\n"
      "callbacks         {} not removed\n"
      "threads           {}\n"
      "descriptors       {}\n"
      "violations        {}\n",
      report.cycles, blocks, bytes, lists, callbacks, courseText(report, &ProcessUse::threads),
      courseText(report, &ProcessUse::descriptors), report.leftovers.violations.size());
  for (const auto& violation : report.leftovers.violations) text += "  " + violation + "\n";
  return text;
}

json jsonOf(const CyclesReport& report) {
  const auto& [blocks, bytes, lists, callbacks] = report.leftovers.notReturned;
  return {{"cycles", report.cycles},
          {"not_returned",
           {{"blocks", blocks},
            {"bytes", bytes},
            {"key_value_lists", lists},
            {"callbacks", callbacks}}},
          {"violations", report.leftovers.violations},
          {"threads", courseOf(report, &ProcessUse::threads)},
          {"descriptors", courseOf(report, &ProcessUse::descriptors)}};
}

}  // namespace host
