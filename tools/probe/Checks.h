// The checks of a server, as the manual, the reports and docs/servers.md list them. Any thread; the
// table never changes.
#pragma once

#include <span>
#include <string>
#include <string_view>

namespace probe {

enum class CheckId {
  Connects,
  Methods,
  Values,
  Snapshot,
  StaysOpen,
  Readable,
  Utf8,
  Size,
  OneType,
  Carried,
  Heartbeat,
  Pings,
  Cancel,
  Reopen,
  ThreeGateways,
  Return,
  Rate,
  SteadyPings,
  EngineConnects,
  EngineMethod,
  EngineAnswers,
  EngineTypes,
  EngineUnknownKeys,
  EngineStatus,
  EngineReply,
  EnginePings,
  EngineLoad,
  EngineSteadyPings,  // must stay last
};

// Required: what the gateway can't do without. Recommended: what a good server does.
enum class Kind { Required, Recommended };

struct Check {
  CheckId id;
  std::string_view name;
  int level;  // from 1 to highestLevel; a probe of a level runs the checks up to it
  Kind kind;
  std::string_view claim;  // what holds, as a sentence without a full stop
  std::string_view why;    // whole sentences
  bool ofEngine = false;
};

inline constexpr int highestLevel = 5;

// In the order of CheckId.
std::span<const Check> allChecks();
const Check& rowOf(CheckId id);

std::string_view nameOf(Kind kind);

// What a level adds, such as "reachable".
std::string_view nameOfLevel(int level);

// The list of levels and the list of checks, as the manual shows them.
std::string manualOfLevels();
std::string manualOfChecks();

// The table of checks in docs/servers.md.
std::string markdownOfChecks();

}  // namespace probe
