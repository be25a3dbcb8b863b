// What a probe has found out so far.
//
// Threads: one at a time.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/common/Terminal.h"
#include "tools/probe/Checks.h"

namespace probe {

enum class Verdict { Held, Failed, Skipped };

std::string_view nameOf(Verdict verdict);

struct Result {
  CheckId check;
  Verdict verdict;
  std::string seen;    // what was seen, or why the check was skipped; no full stop
  double seconds = 0;  // since the previous result
};

class Results {
 public:
  using Report = std::function<void(const Result&)>;

  // Collects results of checks up to this level; others are dropped. `report` gets each at once.
  Results(int level, Report report) : level_(level), report_(std::move(report)) {}

  int level() const { return level_; }
  bool wants(CheckId check) const { return rowOf(check).level <= level_; }

  void add(CheckId check, Verdict verdict, const std::string& seen);
  // Held if there is no complaint.
  void judge(CheckId check, const std::string& complaint, const std::string& seen);
  // Skips all checks of a service that have no result yet.
  void skipRest(bool ofEngine, const std::string& reason);

  const std::vector<Result>& all() const { return results_; }
  // Null if there is no such result.
  const Result* find(CheckId check) const;
  bool hasHeld(CheckId check) const;

 private:
  const int level_;
  const Report report_;
  std::vector<Result> results_;
  tools::Clock::time_point last_ = tools::Clock::now();
};

}  // namespace probe
