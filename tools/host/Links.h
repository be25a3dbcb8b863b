// The three links of a module to its servers (fast stream, slow stream, engine service): the state
// of each, and words for people. Both follow from what gRPC accounts for; what its accounts don't
// tell is "unknown".
//
// Pure functions; any thread.
#pragma once

#include <array>
#include <chrono>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "standin/LoadedModule.h"
#include "tools/host/CallWatch.h"
#include "tools/host/ChannelAccounts.h"

namespace host {

// How long a link may be quiet before it counts as silent.
inline constexpr std::chrono::seconds silentAfter{5};

enum class LinkState {
  Off,         // the configuration doesn't use it
  Unknown,     // gRPC has no accounts of it
  Idle,        // no connection, since nothing is to be sent; engine service only
  Connecting,  // no connection yet, or none again
  NoServer,    // the latest attempt to connect failed; gRPC tries again
  Waiting,     // the stream has ended; the module's next attempt is due
  Connected,   // stream: open, but no message yet; engine service: connected
  Receiving,   // the stream's latest message is recent
  Silent,      // connected, but no message or no answer comes
  Failing,     // connected, but the latest call failed; engine service only
};

inline constexpr std::array linkStates{
    LinkState::Off,      LinkState::Unknown, LinkState::Idle,      LinkState::Connecting,
    LinkState::NoServer, LinkState::Waiting, LinkState::Connected, LinkState::Receiving,
    LinkState::Silent,   LinkState::Failing};

// "no-server", as programs read it.
std::string_view nameOf(LinkState state);

// "connected", "silent" and so on say that there is a connection.
bool isConnected(LinkState state);

// What gRPC accounts for at one moment.
struct LinkReading {
  std::chrono::steady_clock::time_point now;
  WallTime wallNow;
  std::string target;  // empty if the configuration doesn't use the link
  std::optional<ChannelAccount> channel;
  std::optional<CallAccount> calls;
};

struct Link {
  standin::SlotSet set;
  LinkState state = LinkState::Unknown;
  std::chrono::steady_clock::time_point since;  // when it entered this state
  std::string words;
  std::string target;
  bool wasConnected = false;  // at some time since the start
  double rate = 0;            // messages per second, of the last few seconds
  CallAccount calls;          // all zero if unknown
  // Earlier counts of messages, oldest first, for the rate.
  std::deque<std::pair<std::chrono::steady_clock::time_point, std::uint64_t>> counts;
};

using Links = std::array<Link, 3>;  // fast, slow, engine

// The link after a reading, which follows the one that gave `before`.
Link next(const Link& before, const LinkReading& reading);

// Whether each meter stream in use has received a message within `age`.
bool isReady(const Links& links, std::chrono::steady_clock::duration age,
             std::chrono::steady_clock::time_point now);

}  // namespace host
