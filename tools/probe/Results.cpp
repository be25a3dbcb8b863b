#include "tools/probe/Results.h"

#include <algorithm>
#include <chrono>

namespace probe {

std::string_view nameOf(Verdict verdict) {
  switch (verdict) {
    case Verdict::Held:
      return "held";
    case Verdict::Failed:
      return "failed";
    case Verdict::Skipped:
      break;
  }
  return "skipped";
}

void Results::add(CheckId check, Verdict verdict, const std::string& seen) {
  if (!wants(check) || find(check) != nullptr) return;
  const auto now = tools::Clock::now();
  results_.push_back({check, verdict, seen, std::chrono::duration<double>(now - last_).count()});
  last_ = now;
  report_(results_.back());
}

void Results::judge(CheckId check, const std::string& complaint, const std::string& seen) {
  if (complaint.empty()) {
    add(check, Verdict::Held, seen);
  } else {
    add(check, Verdict::Failed, complaint);
  }
}

void Results::skipRest(bool ofEngine, const std::string& reason) {
  for (const Check& check : allChecks()) {
    if (check.ofEngine == ofEngine) add(check.id, Verdict::Skipped, reason);
  }
}

const Result* Results::find(CheckId check) const {
  const auto found = std::find_if(results_.begin(), results_.end(),
                                  [&](const Result& each) { return each.check == check; });
  return found == results_.end() ? nullptr : &*found;
}

bool Results::hasHeld(CheckId check) const {
  const Result* const result = find(check);
  return result != nullptr && result->verdict == Verdict::Held;
}

}  // namespace probe
