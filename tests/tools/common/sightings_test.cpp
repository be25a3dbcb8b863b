// What is recorded about messages, readable or not.
#include "tools/common/Sightings.h"

#include <google/protobuf/stubs/logging.h>
#include <gtest/gtest.h>

#include "tools/common/Shown.h"

namespace {

using standin::SlotSet;
using tools::Sightings;
using tools::ValueCase;

std::string meter(const std::string& key, ValueCase type = ValueCase::kSint) {
  sonalith::grpc::Meter meter;
  auto& item = *meter.add_values();
  item.set_key(key);
  if (type == ValueCase::kSint) item.mutable_value()->set_sint(1);
  if (type == ValueCase::kSfloat) item.mutable_value()->set_sfloat(1);
  return meter.SerializeAsString();
}

TEST(Sightings, KeepTheStreamsOfAKeyApart) {
  Sightings sightings;
  sightings.take(SlotSet::Slow, meter("b"));
  sightings.take(SlotSet::Fast, meter("a"));
  sightings.take(SlotSet::Slow, meter("a", ValueCase::kSfloat));
  sightings.take(SlotSet::Slow, meter("a", ValueCase::kSint));
  sightings.take(SlotSet::Slow, meter("a", ValueCase::kSfloat));
  const auto keys = sightings.keys();
  ASSERT_EQ(keys.size(), 3u);
  EXPECT_EQ(keys[0].key, "a");
  EXPECT_EQ(keys[0].rate, SlotSet::Fast);
  EXPECT_EQ(keys[0].messages, 1u);
  EXPECT_EQ(keys[1].key, "b");
  EXPECT_EQ(keys[2].rate, SlotSet::Slow);
  EXPECT_EQ(keys[2].messages, 3u);
  EXPECT_EQ(keys[2].types, (std::vector<ValueCase>{ValueCase::kSfloat, ValueCase::kSint}));
  EXPECT_EQ(sightings.messagesOf(SlotSet::Slow).messages, 4u);
}

// A message of exactly that size is still read.
TEST(Sightings, RefuseMessagesAboveTheLimitOfClients) {
  Sightings sightings;
  const auto ofSize = [](std::size_t size) {
    return "\x7a" + std::string("\xfb\xff\xff\x01", 4) + std::string(size - 5, 'x');
  };
  sightings.take(SlotSet::Fast, ofSize(Sightings::messageLimit));
  EXPECT_EQ(sightings.messagesOf(SlotSet::Fast).unreadable, 0u)
      << sightings.messagesOf(SlotSet::Fast).firstUnreadable;
  sightings.take(SlotSet::Fast, ofSize(Sightings::messageLimit + 1));
  EXPECT_EQ(sightings.messagesOf(SlotSet::Fast).firstUnreadable,
            "message 2 has 4194305 bytes, and gRPC clients accept 4194304 at most");
}

// Cuts a message off at every length. Only the first reason is kept.
TEST(Sightings, CountUnreadableMessages) {
  google::protobuf::SetLogHandler(nullptr);
  Sightings sightings;
  const std::string whole = meter("key");
  for (std::size_t size = 1; size < whole.size(); ++size) {
    sightings.take(SlotSet::Fast, std::string_view(whole).substr(0, size));
  }
  const auto& seen = sightings.messagesOf(SlotSet::Fast);
  EXPECT_EQ(seen.unreadable, whole.size() - 1);
  EXPECT_EQ(seen.firstUnreadable, "message 1 can't be parsed as a Meter of proto/meters.proto");
  EXPECT_TRUE(sightings.keys().empty());
}

// The second stream has limits of its own.
TEST(Sightings, KeepNoMoreThanTheirLimits) {
  Sightings few({.keys = 2});
  for (const char* const key : {"a", "b", "c", "d", "a", "c"}) {
    few.take(SlotSet::Fast, meter(key));
    few.take(SlotSet::Slow, meter("a"));
  }
  EXPECT_EQ(few.keysOf(SlotSet::Fast).size(), 2u);
  EXPECT_EQ(few.find(SlotSet::Fast, "a")->messages, 2u);
  EXPECT_EQ(few.find(SlotSet::Fast, "c"), nullptr);
  EXPECT_EQ(few.messagesOf(SlotSet::Fast).ignoredValues, 3u);
  EXPECT_EQ(few.messagesOf(SlotSet::Slow).ignoredValues, 0u);

  Sightings brief({.keyBytes = 5});
  for (const char* const key : {"abc", "def", "gh"}) brief.take(SlotSet::Fast, meter(key));
  EXPECT_EQ(brief.keysOf(SlotSet::Fast).size(), 2u);
  EXPECT_EQ(brief.find(SlotSet::Fast, "def"), nullptr);
}

TEST(Sightings, KeepExpectedKeysBeyondTheLimits) {
  Sightings sightings({.keys = 1});
  sightings.expect(SlotSet::Slow, "wanted", gateway::ValueType::Int);
  for (const SlotSet rate : {SlotSet::Fast, SlotSet::Slow}) {
    sightings.take(rate, meter("first"));
    sightings.take(rate, meter("second"));
    sightings.take(rate, meter("wanted"));
    EXPECT_NE(sightings.find(rate, "wanted"), nullptr);
    EXPECT_EQ(sightings.find(rate, "second"), nullptr);
  }
}

TEST(Sightings, HaveSeenAllOnceEachExpectedKeyCameAtItsRateWithItsType) {
  EXPECT_FALSE(Sightings().hasSeenExpected());
  Sightings sightings;
  sightings.expect(SlotSet::Fast, "a", gateway::ValueType::Int);
  sightings.expect(SlotSet::Fast, "a", gateway::ValueType::Float);
  sightings.expect(SlotSet::Slow, "b", gateway::ValueType::Int);
  const auto takes = [&](SlotSet rate, const std::string& message) {
    sightings.take(rate, message);
    return sightings.hasSeenExpected();
  };
  EXPECT_FALSE(takes(SlotSet::Fast, meter("a")));
  EXPECT_FALSE(takes(SlotSet::Fast, meter("a")));
  EXPECT_FALSE(takes(SlotSet::Slow, meter("a", ValueCase::kSfloat)));
  EXPECT_FALSE(takes(SlotSet::Fast, meter("a", ValueCase::kSfloat)));
  EXPECT_FALSE(takes(SlotSet::Fast, meter("b")));
  EXPECT_FALSE(takes(SlotSet::Slow, meter("b", ValueCase::VALUE_NOT_SET)));
  EXPECT_TRUE(takes(SlotSet::Slow, meter("b")));
}

TEST(TypeOf, EveryAnyValueMemberHasARow) {
  for (int number = 0; number <= ValueCase::kSdouble; ++number) {
    const auto value = static_cast<ValueCase>(number);
    EXPECT_EQ(tools::typeOf(value).value, value);
  }
}

TEST(Shown, IsShortAndOnOneLine) {
  EXPECT_EQ(tools::shown("a\"b\n\t\x1b\x7f\\"), R"("a\"b\n\t\u001b\u007f\\")");
  EXPECT_EQ(tools::shown("\xff"), "\"\xef\xbf\xbd\"");
  EXPECT_EQ(tools::shown(std::string(100, 'x')), "\"" + std::string(100, 'x') + "\"");
  EXPECT_EQ(tools::shown(std::string(101, 'x')), "\"" + std::string(100, 'x') + "\"...");
  // A character of three bytes at the limit is dropped whole.
  EXPECT_EQ(tools::shown(std::string(98, 'x') + "\xe2\x82\xac"),
            "\"" + std::string(98, 'x') + "\"...");
}

}  // namespace
