// Judges a configuration: applies the rules to each line, and collects what they find.
// Threads: one at a time. Memory: what Walk, Configuration and Findings keep.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "module/grpc-gateway/ValueType.h"
#include "standin/LoadedModule.h"
#include "tools/check/Findings.h"
#include "tools/check/Overlay.h"
#include "tools/check/ServerRules.h"
#include "tools/check/Walk.h"

namespace check {

// Whether the module would finish reading the configuration. If not, do not let it start.
enum class Reading { Finite, Endless };

// The line of an entry that the module appends to one of its lists.
struct EntryPlace {
  std::size_t file;  // its index among the files
  std::size_t line;  // from 1
  standin::SlotSet set;
  gateway::ValueType type;
  std::size_t position;  // in its list, from 0
};

struct Judged {
  Reading reading = Reading::Finite;
  std::vector<std::string> files = {};   // the names of all that were opened, the main file first
  std::vector<EntryPlace> entries = {};  // in the order of the lines
};

// Judges the file at `path` and adds what is wrong to `findings`. Messages call the file `name`.
// Reads the texts of the overlay in place of their files. Compares the meters with what `server`
// sends, unless it is null. Throws UncheckableFile.
Judged judge(const std::string& path, const std::string& name, const WalkLimits& limits,
             const Overlay& overlay, const HeardServer* server, Findings& findings);

}  // namespace check
