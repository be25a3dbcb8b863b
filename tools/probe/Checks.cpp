#include "tools/probe/Checks.h"

#include <fmt/format.h>

#include <array>
#include <vector>

#include "tools/common/EnumTable.h"
#include "tools/common/ManualText.h"

namespace probe {
namespace {

using C = CheckId;
constexpr Kind required = Kind::Required;
constexpr Kind recommended = Kind::Recommended;
constexpr bool forEngine = true;

constexpr std::string_view whyPings =
    "The gateway pings a quiet connection twice. A server that takes this for abuse disconnects "
    "it.";
constexpr std::string_view whySteadyPings =
    "Other clients, and gateways with data of their own to send, ping every ten seconds for as "
    "long as they run. gRPC's default disconnects them with too_many_pings.";

constexpr auto checkTable = std::to_array<Check>({
    {C::Connects, "connects", 1, required, "The server answers within ten seconds",
     "Without a connection, nothing arrives."},
    {C::Methods, "methods", 1, required, "GetMetersFast and GetMetersSlow exist",
     "The gateway keeps a call to each open, and calls a missing one again every five seconds."},
    {C::Values, "values", 2, required, "Values come within ten seconds",
     "Until a value comes, a slot keeps its default."},
    {C::Snapshot, "snapshot", 2, recommended, "Each stream begins with values, within ten seconds",
     "A gateway that reconnects has no other way to get the current values."},
    {C::StaysOpen, "stays-open", 2, required, "The server ends neither stream",
     "After each end the gateway waits five seconds, and the slots keep old values."},
    {C::Readable, "readable", 3, required, "Every message is a Meter of proto/meters.proto",
     "A message that can't be parsed is lost, and its stream is closed for five seconds."},
    {C::Utf8, "utf8", 3, required, "Every key and text is UTF-8",
     "A single invalid byte makes the whole message unreadable, and its stream is closed for five "
     "seconds."},
    {C::Size, "size", 3, required, "No message is longer than 4 MiB",
     "That is gRPC's limit. A longer message is lost, and its stream is closed for five seconds."},
    {C::OneType, "one-type", 3, required, "Each key has one type",
     "An entry of a configuration has one type, and values of another are dropped silently."},
    {C::Carried, "carried", 3, recommended, "The gateway can carry every key",
     "Arrays, doubles and keys that no configuration can name are dropped silently."},
    {C::Heartbeat, "heartbeat", 3, recommended,
     "Something comes on each stream at least every ten seconds, even an empty message",
     "On a quiet connection, a gateway does not notice that the server or the network has died."},
    {C::Pings, "pings", 3, required, "Two pings in a row are answered", whyPings},
    {C::Cancel, "cancel", 4, required, "When one stream is cancelled, the other continues",
     "A gateway can stop at any moment, and its streams end one after the other."},
    {C::Reopen, "reopen", 4, required, "The streams can be opened ten times in succession",
     "Gateways restart, and networks fail: a server must not run out of anything."},
    {C::ThreeGateways, "three-gateways", 4, required, "Three gateways get values at once",
     "A second engine or a technician's tool must not take the values away from the first."},
    {C::Return, "return", 4, recommended, "A gateway that returns gets all keys again",
     "Otherwise, values that change rarely stay old in a gateway that was away."},
    {C::Rate, "rate", 5, recommended, "A stream has at most 500 messages a second",
     "Slots show only the newest value, and each message costs the gateway a pass over its lists."},
    {C::SteadyPings, "steady-pings", 5, recommended, "Pings every ten seconds are permitted",
     whySteadyPings},
    {C::EngineConnects, "engine-connects", 1, required,
     "The engine service answers within ten seconds", "Without a connection, every change is lost.",
     forEngine},
    {C::EngineMethod, "engine-method", 1, required, "SetParams exists",
     "It is the only method that the gateway calls.", forEngine},
    {C::EngineAnswers, "engine-answers", 2, required, "SetParams is answered within a second",
     "A call has no deadline. One that is never answered keeps the gateway from stopping.",
     forEngine},
    {C::EngineTypes, "engine-types", 3, required,
     "Calls with a string, a float, an int and a uint are answered",
     "The gateway sends these four types.", forEngine},
    {C::EngineUnknownKeys, "engine-unknown-keys", 3, required,
     "The service survives unknown keys, empty keys and keys without values",
     "A mistake in a configuration must not stop the service for others.", forEngine},
    {C::EngineStatus, "engine-status", 3, recommended, "The answers have the status OK",
     "The gateway ignores the status and does not repeat a failed call, so the change is lost.",
     forEngine},
    {C::EngineReply, "engine-reply", 3, recommended,
     "The answers are a ResponseSetParams of proto/engine.proto",
     "The gateway ignores them, but other clients read them.", forEngine},
    {C::EnginePings, "engine-pings", 3, required, "Two pings in a row are answered", whyPings,
     forEngine},
    {C::EngineLoad, "engine-load", 5, required, "1000 calls at once are answered",
     "Each notification of the engine is a call, and nothing limits how many are in flight.",
     forEngine},
    {C::EngineSteadyPings, "engine-steady-pings", 5, recommended,
     "Pings every ten seconds are permitted", whySteadyPings, forEngine},
});
static_assert(tools::isIndexedBy(checkTable, &Check::id), "a row per check, in their order");
static_assert(checkTable.back().id == C::EngineSteadyPings, "every check has a row");

constexpr std::array<std::string_view, highestLevel> levelNames = {
    "Reachable: server and methods are there.",
    "Alive: values come, streams stay open, and calls are answered.",
    "Correct: everything that is sent can be used, and quiet connections last.",
    "Robust: gateways come, go, return, and share the server.",
    "Ready: everything, load included.",
};

}  // namespace

std::span<const Check> allChecks() {
  return checkTable;
}

const Check& rowOf(CheckId id) {
  return checkTable[static_cast<std::size_t>(id)];
}

std::string_view nameOf(Kind kind) {
  return kind == Kind::Required ? "required" : "recommended";
}

std::string_view nameOfLevel(int level) {
  return levelNames.at(static_cast<std::size_t>(level) - 1);
}

std::string manualOfLevels() {
  std::string text;
  for (int level = 1; level <= highestLevel; ++level) {
    text += tools::manualEntry(std::to_string(level), nameOfLevel(level), 5);
  }
  return text;
}

std::string manualOfChecks() {
  constexpr std::size_t column = 23;
  std::string text;
  for (const Check& check : checkTable) {
    text += tools::manualEntry(check.name,
                               fmt::format("Level {}, {}. {}. {}", check.level, nameOf(check.kind),
                                           check.claim, check.why),
                               column);
  }
  return text;
}

std::string markdownOfChecks() {
  std::string text = "| Check | Level | | What holds | Why it matters |\n|---|---|---|---|---|\n";
  for (const Check& check : checkTable) {
    text += fmt::format("| `{}` | {} | {} | {} | {} |\n", check.name, check.level,
                        nameOf(check.kind), check.claim, check.why);
  }
  return text;
}

}  // namespace probe
