// The real module under every kind of fault: whatever the fault does not act on continues, and
// the module stops cleanly.
#include <gtest/gtest.h>

#include <csignal>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <vector>

#include "tests/support/SimProcess.h"
#include "tests/support/TemporaryFolder.h"
#include "tools/sim/FaultPlan.h"

namespace {

using sim::FaultArgument;
using sim::FaultKindRow;
using sim::Subject;

struct Case {
  FaultKindRow row;
  Subject subject;
};

std::ostream& operator<<(std::ostream& out, const Case& each) {
  return out << each.row.name << ' ' << sim::nameOf(each.subject);
}

std::vector<Case> allCases() {
  std::vector<Case> cases;
  for (const auto& row : sim::faultKinds()) {
    for (const auto subject : row.subjects()) cases.push_back({row, subject});
  }
  return cases;
}

std::string testName(const testing::TestParamInfo<Case>& info) {
  std::string name(info.param.row.name);
  std::erase(name, '-');
  return name + "_" + std::string(sim::nameOf(info.param.subject));
}

// The argument, if the fault requires one.
std::string argumentOf(const FaultKindRow& row) {
  switch (row.argument) {
    case FaultArgument::Status:
      return " UNAVAILABLE";
    case FaultArgument::Time:
      return " 200ms+-50ms";
    case FaultArgument::Bytes:
      return " 1000";
    case FaultArgument::None:
    case FaultArgument::Number:
    case FaultArgument::Count:
      break;
  }
  return "";
}

// Repeats the fault, so that it also comes while both streams are open.
std::string planLine(const Case& each) {
  const std::string times = each.row.lasts() ? "every 1.5 for 0.5: " : "every 1.5: ";
  return times + std::string(each.row.name) + " " + std::string(sim::nameOf(each.subject)) +
         argumentOf(each.row);
}

std::string config(const std::string& meters, const std::string& engine) {
  return "[Meters]\nTarget=" + meters +
         "\n[MetersFloat]\nMeter=Key=a\nMeter=Key=b Type=slow\n"
         "[MetersInt]\nMeter=Key=c\nMeter=Key=d Type=slow\n"
         "[MetersUint]\nMeter=Key=e\nMeter=Key=f Type=slow\n"
         "[MetersString]\nMeter=Key=g\nMeter=Key=h Type=slow\n"
         "[Engine]\nTarget=" +
         engine + "\n[EngineFloat]\nParam=Key=out.gain CustomKey=gain\n";
}

std::vector<std::string> simArguments(const std::string& config, const std::string& fault) {
  return {"sim",         "--json",
          "--config",    config,
          "--meters",    SimProcess::anyPort,
          "--engine",    SimProcess::anyPort,
          "--rate-fast", "20",
          "--rate-slow", "20",
          "--fault",     fault};
}

std::vector<std::string> hostArguments(const std::string& config) {
  return {"host", config, "--no-page", "--watch"};
}

class EachFault : public testing::TestWithParam<Case> {
 protected:
  std::string addressOf(const std::string& service) {
    const auto line = sim.waitLine(R"({"event":"listening","service":")" + service);
    return nlohmann::json::parse(line).at("address");
  }

  // Waits longer than a SetParams call takes: by design the module leaks a call that completes at
  // the moment of the stop, and the leak sanitizer would report it.
  void expectTheRestToContinue(Subject subject) {
    constexpr int aSecondOrTwo = 40;
    if (subject == Subject::Meters) {
      host.writeLine("set gain 3");
      sim.waitLine(R"({"event":"set_params","call":3,)");
    }
    host.waitMore(subject == Subject::Fast ? "slow " : "fast ", aSecondOrTwo);
  }

  static void expectNoSanitizerReport(const ToolProcess& process) {
    for (const char* word : {"Sanitizer", "runtime error:"}) {
      EXPECT_EQ(process.errors().find(word), std::string::npos) << process.errors();
    }
  }

  TemporaryFolder files;
  ToolProcess sim{
      simArguments(files.write("keys.conf", config("any:1", "any:2")), planLine(GetParam()))};
  const std::string meters = addressOf("meters");
  const std::string engine = addressOf("engine");
  ToolProcess host{hostArguments(files.write("gateway.conf", config(meters, engine)))};
};

INSTANTIATE_TEST_SUITE_P(, EachFault, testing::ValuesIn(allCases()), testName);

TEST_P(EachFault, SparesTheRestAndLetsTheModuleStopCleanly) {
  const auto subject = GetParam().subject;
  sim.waitLine(R"({"event":"opened","stream":"fast")");
  sim.waitLine(R"({"event":"opened","stream":"slow")");
  host.writeLine("set gain 1");
  sim.waitMore(R"({"event":"fault",)", 1);
  host.writeLine("set gain 2");
  expectTheRestToContinue(subject);
  host.writeLine("quit");
  EXPECT_EQ(host.waitExit(), 0);
  expectNoSanitizerReport(host);
  sim.signal(SIGTERM);
  EXPECT_EQ(sim.waitExit(), 130);
  expectNoSanitizerReport(sim);
}

}  // namespace
