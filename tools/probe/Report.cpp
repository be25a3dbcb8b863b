#include "tools/probe/Report.h"

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "tools/common/Json.h"
#include "tools/common/Junit.h"
#include "tools/common/ManualText.h"
#include "tools/common/Words.h"

namespace probe {
namespace {

using nlohmann::ordered_json;
using tools::ExitCode;

bool isFailure(const Result& result) {
  return result.verdict == Verdict::Failed && rowOf(result.check).kind == Kind::Required;
}

ordered_json jsonOfResult(const Result& result) {
  const Check& check = rowOf(result.check);
  return {{"name", check.name},
          {"level", check.level},
          {"kind", nameOf(check.kind)},
          {"claim", check.claim},
          {"verdict", nameOf(result.verdict)},
          {"seen", result.seen},
          {"why", check.why},
          {"seconds", result.seconds}};
}

}  // namespace

int Outcome::reached() const {
  int reached = level;
  for (const Result& result : results) {
    const Check& check = rowOf(result.check);
    const bool isProbed = !check.ofEngine || !engine.empty();
    if (isProbed && check.kind == Kind::Required && result.verdict != Verdict::Held) {
      reached = std::min(reached, check.level - 1);
    }
  }
  return reached;
}

ExitCode Outcome::exitCode() const {
  if (wasInterrupted) return ExitCode::Interrupted;
  const auto failed = [&](CheckId check) {
    return std::any_of(results.begin(), results.end(), [&](const Result& each) {
      return each.check == check && each.verdict == Verdict::Failed;
    });
  };
  if (failed(CheckId::Connects) || failed(CheckId::EngineConnects)) return ExitCode::WrongUse;
  return std::any_of(results.begin(), results.end(), isFailure) ? ExitCode::Failed : ExitCode::Done;
}

std::string textOf(const Result& result, std::size_t width) {
  constexpr std::size_t indent = 9;
  const Check& check = rowOf(result.check);
  auto head = fmt::format("{:<9}{} ({}): {}\n", nameOf(result.verdict), check.name,
                          nameOf(check.kind), tools::printable(result.seen));
  if (result.verdict == Verdict::Skipped) return head;
  return head + tools::wrapped(fmt::format("{}. {}", check.claim, check.why), indent, width);
}

std::string summaryOf(const Outcome& outcome) {
  const auto count = [&](Verdict verdict) {
    return std::count_if(outcome.results.begin(), outcome.results.end(),
                         [&](const Result& each) { return each.verdict == verdict; });
  };
  const auto failures = std::count_if(outcome.results.begin(), outcome.results.end(), isFailure);
  const auto counts =
      fmt::format("{} held, {} failed ({} of them required), {} skipped", count(Verdict::Held),
                  count(Verdict::Failed), failures, count(Verdict::Skipped));
  if (outcome.wasInterrupted) return counts + ". Interrupted before the end.\n";
  const int reached = outcome.reached();
  if (reached == 0) return fmt::format("{}. Level 1 is not reached.\n", counts);
  return fmt::format("{}. Level {} of {} is reached. {}\n", counts, reached, highestLevel,
                     nameOfLevel(reached));
}

std::string jsonOf(const Outcome& outcome) {
  ordered_json document{{"version", 1},
                        {"target", outcome.target},
                        {"engine", outcome.engine},
                        {"level", outcome.level},
                        {"reached", outcome.reached()},
                        {"interrupted", outcome.wasInterrupted},
                        {"exit_code", static_cast<int>(outcome.exitCode())},
                        {"checks", ordered_json::array()}};
  for (const Result& result : outcome.results) document["checks"].push_back(jsonOfResult(result));
  return tools::jsonText(document, 2) + "\n";
}

std::string junitOf(const Outcome& outcome) {
  std::vector<tools::JunitCase> cases;
  for (const Result& result : outcome.results) {
    const Check& check = rowOf(result.check);
    tools::JunitCase each{.name = std::string(check.name), .seconds = result.seconds};
    if (isFailure(result)) {
      each.failure = fmt::format("{}. {}", result.seen, check.why);
    } else if (result.verdict == Verdict::Skipped) {
      each.skipped = result.seen;
    } else {
      each.output =
          fmt::format("{} ({}): {}", nameOf(result.verdict), nameOf(check.kind), result.seen);
    }
    cases.push_back(std::move(each));
  }
  return tools::junitOf("gatewayctl probe", cases);
}

}  // namespace probe
