// For tests of gatewayctl probe that run it in process.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "tests/support/SimProcess.h"
#include "tools/common/Terminal.h"
#include "tools/probe/Probe.h"
#include "tools/probe/Report.h"

namespace probe {

// The simulator, which plays two keys on each stream.
class PlayingServer {
 public:
  explicit PlayingServer(const std::vector<std::string>& arguments = {})
      : process_(all(arguments)) {
    meters = process_.waitLine("meters ").substr(7);
    engine = process_.waitLine("engine ").substr(7);
  }

  std::string meters;
  std::string engine;

 private:
  static std::vector<std::string> all(const std::vector<std::string>& arguments) {
    std::vector<std::string> all{"sim",
                                 "--meters",
                                 SimProcess::anyPort,
                                 "--engine",
                                 SimProcess::anyPort,
                                 "--rate-slow",
                                 "20",
                                 "--keys",
                                 "fast:float:a",
                                 "fast:string:b",
                                 "slow:int:c",
                                 "slow:uint:d"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return all;
  }

  ToolProcess process_;
};

// The results of a probe of one or both services; no target means that the service is not probed.
inline Results probed(const std::string& meters, const std::string& engine, int level,
                      const Limits& limits = {}) {
  const tools::SignalDescriptor signals;
  const Waiter waiter(signals);
  Results results(level, [](const Result&) {});
  const Site site{waiter, limits, results};
  if (!meters.empty()) probeMeters(site, meters);
  if (!engine.empty()) probeEngine(site, engine);
  return results;
}

using Names = std::set<std::string>;

// The names of the checks with this verdict.
inline Names namesOf(const Results& results, Verdict verdict) {
  Names names;
  for (const Result& each : results.all()) {
    if (each.verdict == verdict) names.emplace(rowOf(each.check).name);
  }
  return names;
}

// What was seen, for messages.
inline std::string textOf(const Results& results) {
  std::string text;
  for (const Result& each : results.all()) text += textOf(each, 100);
  return text;
}

}  // namespace probe
