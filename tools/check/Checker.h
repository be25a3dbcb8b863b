// One configuration, checked: the module's own verdict, and what explains it.
//
// The verdict is that of the module's ConfigManager, so that both can't differ. It is not asked
// where it would not come back: about a file that includes itself and the like, which is refused
// without it.
//
// Threads: one at a time. A standin::Host has to exist, for the module to log to.
#pragma once

#include <array>
#include <cstddef>
#include <set>
#include <string>
#include <vector>

#include "tools/check/Findings.h"
#include "tools/check/Walk.h"
#include "tools/common/ConfiguredSlots.h"

namespace check {

enum class Verdict {
  Accepted,
  Refused,
  Unreadable,  // no verdict
};

std::string_view nameOf(Verdict verdict);

// A line that the module logs about the configuration.
struct ModuleLine {
  int level = 0;
  std::string text = {};
};

struct Checked {
  std::string file = {};
  Verdict verdict = Verdict::Unreadable;
  std::string reason = {};  // why there is no verdict
  std::vector<Diagnostic> diagnostics = {};
  std::array<std::size_t, 3> counts{};  // by Severity, also of those that were not kept
  std::size_t omitted = 0;              // diagnostics that were not kept
  std::vector<tools::ConfiguredSlot> slots =
      {};                            // of an accepted configuration, if they were asked for
  std::vector<ModuleLine> log = {};  // the first lines
  bool moduleWasAsked = false;

  std::size_t count(Severity severity) const { return counts[static_cast<std::size_t>(severity)]; }
};

struct Request {
  std::string path = {};
  std::string name = {};        // for messages
  std::set<Rule> allowed = {};  // rules whose warnings are passed over
  bool withSlots = false;
  WalkLimits limits = {};
};

// Does not throw for anything in the file, nor for a file that can't be read.
Checked check(const Request& request);

}  // namespace check
