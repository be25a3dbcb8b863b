// gRPC's accounts of channels, as its own answers write them.
#include "tools/host/ChannelAccounts.h"

#include <gtest/gtest.h>

namespace {

using host::channelsIn;
using host::ChannelState;

std::string eventText(const std::string& what, const std::string& second) {
  return R"({"description":")" + what + R"(","timestamp":"1970-01-01T00:00:)" + second + R"(Z"})";
}

std::string channelText(const std::string& state, const std::string& events) {
  return R"({"channel":[{"ref":{"channelId":"3"},"data":{"target":"localhost:50005",)" + state +
         R"("trace":{"creationTimestamp":"1970-01-01T00:00:01.5Z","events":[)" + events +
         R"(]}}}],"end":true})";
}

double secondsOf(host::WallTime time) {
  return std::chrono::duration<double>(time.time_since_epoch()).count();
}

TEST(ChannelAccounts, GiveTheStateAndItsBeginning) {
  const auto accounts =
      channelsIn(channelText(R"("state":{"state":"READY"},)",
                             eventText("Channel created", "01.500000000") + "," +
                                 eventText("Channel state change to CONNECTING", "02") + "," +
                                 eventText("Channel state change to READY", "04.5")));
  ASSERT_EQ(accounts.size(), 1u);
  EXPECT_EQ(accounts[0].number, 3);
  EXPECT_EQ(accounts[0].target, "localhost:50005");
  EXPECT_EQ(accounts[0].state, ChannelState::Ready);
  EXPECT_DOUBLE_EQ(secondsOf(accounts[0].since), 4.5);
  EXPECT_TRUE(accounts[0].wasReady);
  EXPECT_FALSE(accounts[0].lastFailed);
}

TEST(ChannelAccounts, CountAStateFromItsFirstRepetitionAndKnowTheLastFailure) {
  const auto accounts = channelsIn(
      channelText(R"("state":{"state":"TRANSIENT_FAILURE"},)",
                  eventText("Channel state change to CONNECTING", "02") + "," +
                      eventText("Channel state change to TRANSIENT_FAILURE", "03") + "," +
                      eventText("Resolution event: Address list became non-empty", "04") + "," +
                      eventText("Channel state change to TRANSIENT_FAILURE", "07")));
  ASSERT_EQ(accounts.size(), 1u);
  EXPECT_DOUBLE_EQ(secondsOf(accounts[0].since), 3);
  ASSERT_TRUE(accounts[0].lastFailed);
  EXPECT_DOUBLE_EQ(secondsOf(*accounts[0].lastFailed), 7);
  EXPECT_FALSE(accounts[0].wasReady);
  EXPECT_FALSE(accounts[0].isUnresolved);
}

TEST(ChannelAccounts, KnowWhenATargetHasNoAddress) {
  const std::string failure =
      eventText("Resolution event: UNAVAILABLE: DNS resolution failed for nowhere:1", "02");
  EXPECT_TRUE(channelsIn(channelText("", failure))[0].isUnresolved);
  const std::string success = eventText("Resolution event: Address list became non-empty", "03");
  EXPECT_FALSE(channelsIn(channelText("", failure + "," + success))[0].isUnresolved);
}

TEST(ChannelAccounts, TakeAChannelWithoutAStateForIdle) {
  const auto accounts = channelsIn(channelText("", eventText("Channel created", "01")));
  ASSERT_EQ(accounts.size(), 1u);
  EXPECT_EQ(accounts[0].state, ChannelState::Idle);
  EXPECT_DOUBLE_EQ(secondsOf(accounts[0].since), 1.5);
}

TEST(ChannelAccounts, SkipWhatTheyDoNotUnderstand) {
  EXPECT_TRUE(channelsIn("").empty());
  EXPECT_TRUE(channelsIn("[]").empty());
  EXPECT_TRUE(channelsIn(R"({"end":true})").empty());
  EXPECT_TRUE(channelsIn(R"({"channel":[7,{"ref":{"channelId":"x"}},{"ref":3}]})").empty());
  EXPECT_TRUE(channelsIn(R"({"channel":{"a":1}})").empty());
  const auto accounts = channelsIn(
      channelText("", R"({"description":5},7,)" + eventText("Channel created", "no time")));
  EXPECT_EQ(accounts.size(), 1u);
}

TEST(ChannelAccounts, AreEmptyInAProcessWithoutChannels) {
  EXPECT_TRUE(host::channelAccounts().empty());
}

}  // namespace
