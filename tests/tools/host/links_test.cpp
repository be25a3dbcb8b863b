// The state of each link and its words, from what gRPC accounts for at successive moments.
#include "tools/host/Links.h"

#include <gtest/gtest.h>

namespace {

using grpc::StatusCode;
using host::CallAccount;
using host::CallEnd;
using host::ChannelAccount;
using host::ChannelState;
using host::Link;
using host::LinkReading;
using host::LinkState;
using standin::SlotSet;
using namespace std::chrono_literals;

using Time = std::chrono::steady_clock::time_point;

constexpr Time start{1000s};
constexpr host::WallTime wallStart{5000s};

ChannelAccount channelIn(ChannelState state) {
  ChannelAccount channel;
  channel.target = "desk:1";
  channel.state = state;
  channel.since = wallStart;
  return channel;
}

// An open stream whose request went out right at the start.
CallAccount openStream() {
  CallAccount calls;
  calls.started = 1;
  calls.isSent = true;
  calls.sentAt = start;
  return calls;
}

// A stream that is over.
CallAccount endedStream(const grpc::Status& status, bool wasSent = true) {
  CallAccount calls = openStream();
  calls.isSent = wasSent;
  calls.failed = 1;
  calls.lastEnd = CallEnd{start, wasSent, false, status};
  return calls;
}

CallAccount endedCall(const grpc::Status& status) {
  CallAccount calls;
  calls.started = 1;
  ++(status.ok() ? calls.succeeded : calls.failed);
  calls.lastEnd = CallEnd{start, true, false, status};
  return calls;
}

// What gRPC accounts for `after` the start.
LinkReading reading(std::chrono::seconds after, std::optional<ChannelAccount> channel,
                    std::optional<CallAccount> calls) {
  return {start + after, wallStart + after, "desk:1", std::move(channel), std::move(calls)};
}

Link fresh(SlotSet set) {
  Link link;
  link.set = set;
  link.since = start;
  return link;
}

Link fastAfter(const LinkReading& reading) {
  return next(fresh(SlotSet::Fast), reading);
}

Link engineAfter(const LinkReading& reading) {
  return next(fresh(SlotSet::Engine), reading);
}

#define EXPECT_LINK(link, expectedState, expectedWords) \
  do {                                                  \
    const Link shown = link;                            \
    EXPECT_EQ(nameOf(shown.state), expectedState);      \
    EXPECT_EQ(shown.words, expectedWords);              \
  } while (false)

// ---- What is not known ------------------------------------------------------------------------

TEST(Links, AreOffWithoutATarget) {
  LinkReading off = reading(0s, {}, {});
  off.target = "";
  EXPECT_LINK(fastAfter(off), "off", "off");
  EXPECT_LINK(engineAfter(off), "off", "off");
}

TEST(Links, AreUnknownWithoutAccounts) {
  const std::string words = "unknown: gRPC has no accounts of desk:1";
  EXPECT_LINK(fastAfter(reading(0s, {}, {})), "unknown", words);
  EXPECT_LINK(engineAfter(reading(0s, {}, {})), "unknown", words);
}

TEST(Links, AChannelAloneDoesNotTellOneStreamFromTheOther) {
  EXPECT_EQ(fastAfter(reading(0s, channelIn(ChannelState::Ready), {})).state, LinkState::Unknown);
}

TEST(Links, CallsAloneDoNotTellWhetherTheEngineServiceIsConnected) {
  EXPECT_EQ(engineAfter(reading(0s, {}, endedCall(grpc::Status::OK))).state, LinkState::Unknown);
}

// ---- Streams ----------------------------------------------------------------------------------

TEST(Links, AStreamWhoseRequestHasNotGoneOutIsConnecting) {
  CallAccount calls = openStream();
  calls.isSent = false;
  const auto connecting = channelIn(ChannelState::Connecting);
  const Link first = fastAfter(reading(0s, connecting, calls));
  EXPECT_LINK(first, "connecting", "connecting to desk:1");
  const Link up = next(first, reading(1s, channelIn(ChannelState::Ready), openStream()));
  EXPECT_LINK(next(up, reading(2s, connecting, calls)), "connecting", "reconnecting to desk:1");
}

TEST(Links, AStreamWithoutAServerSaysWhetherThereEverWasOne) {
  auto channel = channelIn(ChannelState::TransientFailure);
  channel.lastFailed = wallStart + 1s;
  const auto refused = endedStream(grpc::Status::OK, false);
  EXPECT_LINK(fastAfter(reading(4s, channel, refused)), "no-server",
              "no server at desk:1, never connected, trying again; last tried 3 s ago");
  channel.wasReady = true;
  EXPECT_LINK(fastAfter(reading(4s, channel, refused)), "no-server",
              "no server at desk:1, trying again; last tried 3 s ago");
  channel.isUnresolved = true;
  EXPECT_LINK(fastAfter(reading(4s, channel, refused)), "no-server",
              "no address is known for desk:1, trying again; last tried 3 s ago");
}

TEST(Links, AStreamThatCouldNotBeSentHasNoServerEvenIfOnlyTheCallsAreKnown) {
  const auto refused = endedStream(grpc::Status::OK, false);
  EXPECT_LINK(fastAfter(reading(1s, {}, refused)), "no-server",
              "no server at desk:1, never connected, trying again");
}

TEST(Links, AnOpenStreamReceivesOrIsSilent) {
  const auto ready = channelIn(ChannelState::Ready);
  CallAccount calls = openStream();
  EXPECT_LINK(fastAfter(reading(1s, ready, calls)), "connected",
              "connected to desk:1, no message yet");
  EXPECT_LINK(fastAfter(reading(7s, ready, calls)), "silent",
              "connected to desk:1, nothing received for 7 s");
  calls.messages = 1;
  calls.lastMessage = start + 10s;
  EXPECT_LINK(fastAfter(reading(14s, ready, calls)), "receiving",
              "receiving 0.0 messages/s, connected for 14 s");
  EXPECT_LINK(fastAfter(reading(200s, ready, calls)), "silent",
              "connected to desk:1, nothing received for 3 min");
}

TEST(Links, AMessageOfAnEarlierAttemptDoesNotCountForThisOne) {
  CallAccount calls = openStream();
  calls.lastMessage = start - 1s;
  EXPECT_EQ(fastAfter(reading(1s, channelIn(ChannelState::Ready), calls)).state,
            LinkState::Connected);
}

TEST(Links, AStreamThatHasEndedSaysWhatIsKnownOfTheReason) {
  const auto ready = channelIn(ChannelState::Ready);
  const auto wordsOf = [](const std::optional<ChannelAccount>& channel, const CallAccount& calls) {
    const Link link = fastAfter(reading(2s, channel, calls));
    EXPECT_EQ(link.state, LinkState::Waiting);
    return link.words;
  };
  const auto cancelled = endedStream(grpc::Status(StatusCode::CANCELLED, "CANCELLED"));
  EXPECT_EQ(wordsOf(ready, cancelled),
            "stream over (ended by the server, or an unreadable message), next attempt in 3 s");
  EXPECT_EQ(wordsOf(channelIn(ChannelState::Idle), cancelled),
            "connection to desk:1 lost, next attempt in 3 s");
  EXPECT_EQ(wordsOf(ready, endedStream(grpc::Status(StatusCode::RESOURCE_EXHAUSTED, "too large"))),
            "stream failed with RESOURCE_EXHAUSTED: too large, next attempt in 3 s");
  EXPECT_EQ(wordsOf(ready, endedStream(grpc::Status::OK, false)),
            "desk:1 is back, next attempt in 3 s");
}

TEST(Links, TheRateIsThatOfTheLastSeconds) {
  CallAccount calls = openStream();
  Link link = fresh(SlotSet::Fast);
  for (int second = 0; second <= 20; ++second) {
    calls.lastMessage = start + std::chrono::seconds(second);
    calls.messages =
        static_cast<std::uint64_t>(second < 10 ? 100 * second : 1000 + 20 * (second - 10));
    link = next(link, reading(std::chrono::seconds(second), channelIn(ChannelState::Ready), calls));
    if (second == 9) {
      EXPECT_DOUBLE_EQ(link.rate, 100);
    }
  }
  EXPECT_DOUBLE_EQ(link.rate, 20);
  EXPECT_EQ(link.words, "receiving 20 messages/s, connected for 20 s");
}

TEST(Links, AStateKeepsItsBeginning) {
  const auto ready = channelIn(ChannelState::Ready);
  const Link first = fastAfter(reading(1s, ready, openStream()));
  const Link second = next(first, reading(2s, ready, openStream()));
  EXPECT_EQ(second.since, start + 1s);
  EXPECT_EQ(next(second, reading(9s, ready, openStream())).since, start + 9s);
}

// ---- The engine service -----------------------------------------------------------------------

TEST(Links, TheEngineServiceIsIdleUntilAParameterIsSent) {
  EXPECT_LINK(engineAfter(reading(0s, channelIn(ChannelState::Idle), {})), "idle",
              "not connected to desk:1 until a parameter is sent");
}

TEST(Links, TheEngineServiceFollowsItsChannel) {
  EXPECT_LINK(engineAfter(reading(1s, channelIn(ChannelState::Connecting), {})), "connecting",
              "connecting to desk:1");
  EXPECT_LINK(engineAfter(reading(1s, channelIn(ChannelState::TransientFailure), {})), "no-server",
              "no server at desk:1, never connected, trying again");
  EXPECT_LINK(engineAfter(reading(90s, channelIn(ChannelState::Ready), {})), "connected",
              "connected to desk:1 for 90 s");
  EXPECT_EQ(engineAfter(reading(1s, channelIn(ChannelState::Shutdown), {})).state,
            LinkState::Unknown);
}

TEST(Links, TheEngineServiceFailsUntilACallSucceeds) {
  const auto ready = channelIn(ChannelState::Ready);
  const auto failed = endedCall(grpc::Status(StatusCode::INTERNAL, "no"));
  EXPECT_LINK(engineAfter(reading(1s, ready, failed)), "failing",
              "connected to desk:1, last call failed: INTERNAL: no");
  auto unreadable = endedCall(grpc::Status::OK);
  unreadable.lastEnd->wasUnreadable = true;
  EXPECT_LINK(engineAfter(reading(1s, ready, unreadable)), "failing",
              "connected to desk:1, last call failed: the answer can't be read");
  EXPECT_EQ(engineAfter(reading(1s, ready, endedCall(grpc::Status::OK))).state,
            LinkState::Connected);
}

TEST(Links, TheEngineServiceIsSilentWhileACallWaits) {
  CallAccount calls;
  calls.started = 1;
  calls.waitingSince = start;
  const auto ready = channelIn(ChannelState::Ready);
  EXPECT_EQ(engineAfter(reading(4s, ready, calls)).state, LinkState::Connected);
  EXPECT_LINK(engineAfter(reading(6s, ready, calls)), "silent",
              "connected to desk:1, a call unanswered for 6 s");
}

// ---- Ready ------------------------------------------------------------------------------------

TEST(Links, AreReadyWhileEachStreamInUseHasARecentMessage) {
  host::Links links;
  links[0] = fresh(SlotSet::Fast);
  links[1] = fresh(SlotSet::Slow);
  links[2] = fresh(SlotSet::Engine);
  EXPECT_FALSE(isReady(links, 10s, start));
  links[0].calls.lastMessage = start;
  EXPECT_FALSE(isReady(links, 10s, start));
  links[1].calls.lastMessage = start - 5s;
  EXPECT_TRUE(isReady(links, 10s, start));
  EXPECT_TRUE(isReady(links, 10s, start + 5s));
  EXPECT_FALSE(isReady(links, 10s, start + 6s));
  links[1].state = LinkState::Off;
  EXPECT_TRUE(isReady(links, 10s, start + 6s));
}

}  // namespace
