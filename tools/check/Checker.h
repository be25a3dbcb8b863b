// Checks one configuration: the module's own verdict, and diagnostics that explain it.
//
// The verdict comes from the module's ConfigManager, so the two can't differ. The exception is a
// configuration that ConfigManager would never finish reading, such as a file that includes itself:
// the checker refuses it without asking.
//
// Threads: one at a time. A standin::Host must exist, because the module logs to it.
#pragma once

#include <array>
#include <cstddef>
#include <set>
#include <string>
#include <vector>

#include "tools/check/Findings.h"
#include "tools/check/Judge.h"
#include "tools/check/Overlay.h"
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
  std::array<std::size_t, 3> counts{};            // by Severity, including the omitted ones
  std::vector<Omitted> omitted = {};              // diagnostics that are only counted
  std::vector<tools::ConfiguredSlot> slots = {};  // of an accepted configuration, if requested
  tools::ConfiguredSettings settings = {};        // likewise
  std::vector<std::string> files = {};            // all that were read, the main file first
  std::vector<EntryPlace> entries = {};           // the lines that the slots come from
  std::vector<ModuleLine> log = {};               // the first lines
  bool moduleWasAsked = false;
  bool lacksServer = false;        // the server to compare with was not reached
  std::string serverSummary = {};  // how many meters it sends; empty without such a server

  std::size_t count(Severity severity) const { return counts[static_cast<std::size_t>(severity)]; }
};

struct Request {
  std::string path = {};
  std::string name = {};        // for messages
  std::set<Rule> allowed = {};  // rules whose warnings are ignored
  bool withSlots = false;
  bool withRefusedSlots = false;        // also those that a refused configuration would have
  Overlay overlay = {};                 // texts to check in place of those of files
  const HeardServer* server = nullptr;  // to compare the meters with; null for none
  WalkLimits limits = {};
};

// Never throws because of a file, whatever it holds and even if it can't be read.
Checked check(const Request& request);

}  // namespace check
