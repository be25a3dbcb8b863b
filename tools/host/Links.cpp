#include "tools/host/Links.h"

#include <fmt/format.h>

#include <algorithm>

#include "tools/common/EnumTable.h"

namespace host {
namespace {

using standin::SlotSet;
using Time = std::chrono::steady_clock::time_point;
using Duration = std::chrono::steady_clock::duration;

// The module's own rule for streams.
constexpr std::chrono::seconds streamRetry{5};

struct StateRow {
  LinkState state;
  std::string_view name;
  bool isConnected;
};

constexpr auto stateRows = std::to_array<StateRow>({
    {LinkState::Off, "off", false},
    {LinkState::Unknown, "unknown", false},
    {LinkState::Idle, "idle", false},
    {LinkState::Connecting, "connecting", false},
    {LinkState::NoServer, "no-server", false},
    {LinkState::Waiting, "waiting", false},
    {LinkState::Connected, "connected", true},
    {LinkState::Receiving, "receiving", true},
    {LinkState::Silent, "silent", true},
    {LinkState::Failing, "failing", true},
});
static_assert(tools::isIndexedBy(stateRows, &StateRow::state));

std::string timeText(Duration time) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time).count();
  if (seconds < 120) return fmt::format("{} s", std::max<std::int64_t>(0, seconds));
  if (seconds < 7200) return fmt::format("{} min", seconds / 60);
  if (seconds < 172800) return fmt::format("{} h", seconds / 3600);
  return fmt::format("{} d", seconds / 86400);
}

std::string rateText(double rate) {
  return rate < 10 ? fmt::format("{:.1f}", rate) : fmt::format("{:.0f}", rate);
}

bool channelIs(const LinkReading& reading, ChannelState state) {
  return reading.channel && reading.channel->state == state;
}

// ---- State ------------------------------------------------------------------------------------

// A stream between two attempts.
LinkState stateBetweenAttempts(const LinkReading& reading) {
  const bool wasSent = reading.calls->lastEnd && reading.calls->lastEnd->wasSent;
  if (channelIs(reading, ChannelState::TransientFailure)) return LinkState::NoServer;
  if (wasSent || channelIs(reading, ChannelState::Ready)) return LinkState::Waiting;
  return LinkState::NoServer;
}

LinkState streamState(const LinkReading& reading) {
  if (!reading.calls) return LinkState::Unknown;
  const CallAccount& calls = *reading.calls;
  if (calls.open() == 0) return stateBetweenAttempts(reading);
  if (!calls.isSent) {
    const bool fails = channelIs(reading, ChannelState::TransientFailure);
    return fails ? LinkState::NoServer : LinkState::Connecting;
  }
  const bool hasMessage = calls.lastMessage && *calls.lastMessage >= calls.sentAt;
  const Time quietSince = hasMessage ? *calls.lastMessage : calls.sentAt;
  if (reading.now - quietSince >= silentAfter) return LinkState::Silent;
  return hasMessage ? LinkState::Receiving : LinkState::Connected;
}

LinkState connectedEngineState(const std::optional<CallAccount>& calls, Time now) {
  if (!calls) return LinkState::Connected;
  if (calls->waitingSince && now - *calls->waitingSince >= silentAfter) return LinkState::Silent;
  const bool failed =
      calls->lastEnd && (!calls->lastEnd->status.ok() || calls->lastEnd->wasUnreadable);
  return failed ? LinkState::Failing : LinkState::Connected;
}

LinkState engineState(const LinkReading& reading) {
  if (!reading.channel) return LinkState::Unknown;
  switch (reading.channel->state) {
    case ChannelState::Idle:
      return LinkState::Idle;
    case ChannelState::Connecting:
      return LinkState::Connecting;
    case ChannelState::TransientFailure:
      return LinkState::NoServer;
    case ChannelState::Ready:
      return connectedEngineState(reading.calls, reading.now);
    case ChannelState::Shutdown:
      break;
  }
  return LinkState::Unknown;
}

// ---- Words ------------------------------------------------------------------------------------

std::string noServerWords(const Link& link, const LinkReading& reading) {
  const auto& channel = reading.channel;
  std::string words = channel && channel->isUnresolved
                          ? fmt::format("no address is known for {}", link.target)
                          : fmt::format("no server at {}", link.target);
  words += link.wasConnected ? ", trying again" : ", never connected, trying again";
  if (!channel || !channel->lastFailed) return words;
  const auto ago = reading.wallNow - *channel->lastFailed;
  return words + fmt::format("; last tried {} ago", timeText(ago));
}

// The module cancels a stream that has ended before it asks for the status. So CANCELLED says only
// that the stream is over.
std::string endText(const Link& link, const CallEnd& end, const LinkReading& reading) {
  if (!end.wasSent) return fmt::format("{} is back", link.target);
  if (reading.channel && reading.channel->state != ChannelState::Ready) {
    return fmt::format("connection to {} lost", link.target);
  }
  if (end.status.error_code() == grpc::StatusCode::CANCELLED) {
    return "stream over (ended by the server, or an unreadable message)";
  }
  return fmt::format("stream failed with {}", textOf(end.status));
}

std::string waitingWords(const Link& link, const LinkReading& reading) {
  const CallEnd end = link.calls.lastEnd.value_or(CallEnd{});
  return fmt::format("{}, next attempt in {}", endText(link, end, reading),
                     timeText(end.time + streamRetry - reading.now));
}

std::string silentWords(const Link& link, Time now) {
  if (link.set == SlotSet::Engine) {
    const Time since = link.calls.waitingSince.value_or(now);
    return fmt::format("connected to {}, a call unanswered for {}", link.target,
                       timeText(now - since));
  }
  const Time since = std::max(link.calls.lastMessage.value_or(Time()), link.calls.sentAt);
  return fmt::format("connected to {}, nothing received for {}", link.target,
                     timeText(now - since));
}

std::string connectedWords(const Link& link, const LinkReading& reading) {
  if (link.set != SlotSet::Engine) {
    return fmt::format("connected to {}, no message yet", link.target);
  }
  const std::string since = timeText(reading.wallNow - reading.channel->since);
  return fmt::format("connected to {} for {}", link.target, since);
}

std::string failingWords(const Link& link) {
  const CallEnd end = link.calls.lastEnd.value_or(CallEnd{});
  return fmt::format("connected to {}, last call failed: {}", link.target,
                     end.status.ok() ? "the answer can't be read" : textOf(end.status));
}

std::string wordsOf(const Link& link, const LinkReading& reading) {
  switch (link.state) {
    case LinkState::Off:
      return "off";
    case LinkState::Unknown:
      return fmt::format("unknown: gRPC has no accounts of {}", link.target);
    case LinkState::Idle:
      return fmt::format("not connected to {} until a parameter is sent", link.target);
    case LinkState::Connecting:
      return fmt::format("{} to {}", link.wasConnected ? "reconnecting" : "connecting",
                         link.target);
    case LinkState::NoServer:
      return noServerWords(link, reading);
    case LinkState::Waiting:
      return waitingWords(link, reading);
    case LinkState::Connected:
      return connectedWords(link, reading);
    case LinkState::Receiving:
      return fmt::format("receiving {} messages/s, connected for {}", rateText(link.rate),
                         timeText(reading.now - link.calls.sentAt));
    case LinkState::Silent:
      return silentWords(link, reading.now);
    case LinkState::Failing:
      return failingWords(link);
  }
  return "";
}

// ---- Rate -------------------------------------------------------------------------------------

// Over the last seconds, so that a message every two seconds counts as half a message a second.
void measureRate(Link& link, Time now) {
  constexpr std::chrono::seconds window{5};
  link.counts.emplace_back(now, link.calls.messages);
  while (link.counts.size() > 2 && now - link.counts[1].first >= window) link.counts.pop_front();
  const auto& [then, count] = link.counts.front();
  const double seconds = std::chrono::duration<double>(now - then).count();
  link.rate = seconds > 0 ? static_cast<double>(link.calls.messages - count) / seconds : 0;
}

}  // namespace

std::string_view nameOf(LinkState state) {
  return stateRows[static_cast<std::size_t>(state)].name;
}

bool isConnected(LinkState state) {
  return stateRows[static_cast<std::size_t>(state)].isConnected;
}

Link next(const Link& before, const LinkReading& reading) {
  Link link = before;
  link.target = reading.target;
  link.calls = reading.calls.value_or(CallAccount{});
  if (reading.target.empty()) {
    link.state = LinkState::Off;
  } else {
    link.state = link.set == SlotSet::Engine ? engineState(reading) : streamState(reading);
  }
  if (link.state != before.state) link.since = reading.now;
  link.wasConnected |= isConnected(link.state) || (reading.channel && reading.channel->wasReady);
  measureRate(link, reading.now);
  link.words = wordsOf(link, reading);
  return link;
}

bool isReady(const Links& links, Duration age, Time now) {
  return std::all_of(links.begin(), links.end(), [&](const Link& link) {
    if (link.set == SlotSet::Engine || link.state == LinkState::Off) return true;
    return link.calls.lastMessage && now - *link.calls.lastMessage <= age;
  });
}

}  // namespace host
