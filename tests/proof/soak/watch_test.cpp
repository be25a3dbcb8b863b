// The judges of the soak accept what may be missing, and nothing else.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tests/proof/soak/ChangeWatch.h"
#include "tests/proof/soak/StreamWatch.h"

namespace soak {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;
using Problems = std::vector<std::string>;

// A number every 100 ms, for ten minutes. The stream ends after ten seconds of each minute.
const Course slow{.stream = "slow",
                  .interval = milliseconds(100),
                  .ring = 40,
                  .recorded = 6000,
                  .firstEnd = 100,
                  .endEvery = 600,
                  .pause = 45};

class StreamWatchTest : public ::testing::Test {
 protected:
  // Numbers arrive when they are due, and the watch looks after each.
  void arrive(Number from, Number to) {
    for (Number number = from; number <= to; ++number) {
      now_ = begin_ + number * slow.interval;
      if (slow.isSent(number)) put(number);
      watch_.look();
    }
  }
  void put(Number number) {
    slots_[number % slow.ring] = static_cast<std::int32_t>(slow.placeOf(number));
  }
  void openAt(Number number) {
    now_ = begin_ + number * slow.interval;
    watch_.breaks();
  }
  Problems problems() {
    watch_.judgeAll();
    return watch_.problems();
  }

  const Clock::time_point begin_ = Clock::now();
  Clock::time_point now_ = begin_;
  std::map<Number, std::int32_t> slots_;
  StreamWatch watch_{slow, [this](Number slot) { return slots_[slot]; }, [this] { return now_; }};
};

TEST_F(StreamWatchTest, AcceptsAStreamWithoutAGap) {
  arrive(1, 90);
  EXPECT_EQ(problems(), Problems{});
  EXPECT_EQ(watch_.seen(), 90u);
}

TEST_F(StreamWatchTest, AcceptsRoundsOfTheRecording) {
  arrive(1, 100);
  for (Number end = 100; end < 13000; end += 600) {
    openAt(end + 50);
    arrive(end + 45, end + 600);
  }
  EXPECT_EQ(problems(), Problems{});
  EXPECT_EQ(watch_.endsWithoutLoss(), 22u);
}

TEST_F(StreamWatchTest, ReportsAMissingNumberOfAnOpenStream) {
  arrive(1, 50);
  arrive(52, 60);
  EXPECT_EQ(problems(), (Problems{"slow numbers 51 to 51 did not arrive, although the stream was "
                                  "open"}));
}

TEST_F(StreamWatchTest, AcceptsAGapUntilTheStreamIsOpened) {
  arrive(1, 20);
  openAt(50);
  arrive(50, 60);
  EXPECT_EQ(watch_.problems(), Problems{});
  EXPECT_EQ(watch_.inGaps(), 29u);
}

TEST_F(StreamWatchTest, AcceptsOneGapForEachOpening) {
  arrive(1, 20);
  openAt(50);
  arrive(50, 55);
  arrive(57, 60);
  EXPECT_EQ(problems().size(), 1u);
}

TEST_F(StreamWatchTest, ReportsANumberMissingBeforeAnOrderlyEnd) {
  arrive(1, 99);
  openAt(150);
  arrive(145, 200);
  EXPECT_EQ(problems(), (Problems{"slow numbers 100 to 100 did not arrive, although the server "
                                  "sent them before it ended the stream in order"}));
}

TEST_F(StreamWatchTest, ReportsANumberMissingAfterAStreamOpenedInTime) {
  arrive(1, 100);
  openAt(150);
  arrive(146, 200);
  EXPECT_EQ(problems(), (Problems{"slow numbers 145 to 145 did not arrive, although the stream was "
                                  "opened in time for them"}));
}

TEST_F(StreamWatchTest, AcceptsALateOpeningAfterAnOrderlyEnd) {
  arrive(1, 100);
  openAt(160);
  arrive(160, 200);
  EXPECT_EQ(problems(), Problems{});
}

TEST_F(StreamWatchTest, AcceptsADisturbedEnd) {
  arrive(1, 90);
  watch_.disturbed();
  arrive(91, 95);
  openAt(150);
  arrive(145, 200);
  EXPECT_EQ(problems(), Problems{});
}

TEST_F(StreamWatchTest, CallsANumberUnknownIfALaterOneHasItsSlot) {
  arrive(1, 20);
  for (Number number = 21; number <= 65; ++number) put(number);
  arrive(66, 70);
  EXPECT_EQ(problems(), Problems{});
  EXPECT_EQ(watch_.unknown(), 6u);
}

TEST_F(StreamWatchTest, CountsTheOverwrittenNumbersOfAGapAsMissing) {
  arrive(1, 20);
  openAt(80);
  for (Number number = 80; number <= 85; ++number) put(number);
  watch_.look();
  EXPECT_EQ(problems(), Problems{});
  EXPECT_EQ(watch_.inGaps(), 59u);
  EXPECT_EQ(watch_.unknown(), 0u);
}

TEST_F(StreamWatchTest, ReportsAValueOfAnotherSlot) {
  arrive(1, 20);
  slots_[1] = 2;
  watch_.look();
  EXPECT_EQ(problems().front(), "ring_1 has 2, which was not sent to it");
}

class ChangeWatchTest : public ::testing::Test {
 protected:
  void send(int count) {
    for (int i = 0; i < count; ++i) {
      now_ += milliseconds(100);
      watch_.send();
    }
  }
  Problems problems() {
    watch_.judgeAll();
    return watch_.problems();
  }

  Clock::time_point now_ = Clock::now();
  ChangeWatch watch_{[this] { return now_; }};
};

TEST_F(ChangeWatchTest, AcceptsAnyOrder) {
  send(3);
  for (const int number : {3, 1, 2}) watch_.arrived(number);
  EXPECT_EQ(problems(), Problems{});
  EXPECT_EQ(watch_.arrived(), 3u);
}

TEST_F(ChangeWatchTest, ReportsARepeatedChange) {
  send(1);
  watch_.arrived(1);
  watch_.arrived(1);
  EXPECT_EQ(problems(), (Problems{"change 1 arrived twice, very late or without being sent"}));
}

TEST_F(ChangeWatchTest, ReportsALostChange) {
  send(3);
  watch_.arrived(1);
  watch_.arrived(3);
  EXPECT_EQ(problems(),
            (Problems{"changes from number 2 on were lost, although the service was connected"}));
}

TEST_F(ChangeWatchTest, AcceptsLostChangesFromADisconnectionOn) {
  send(1);
  watch_.arrived(1);
  watch_.disconnected();
  send(100);
  send(1);
  watch_.arrived(102);
  EXPECT_EQ(problems(), Problems{});
  EXPECT_EQ(watch_.lost(), 100u);
}

TEST_F(ChangeWatchTest, ReportsAServiceThatStaysAway) {
  watch_.disconnected();
  send(1900);
  EXPECT_EQ(problems().front(), "no change has arrived for minutes, from number 1 on");
}

TEST_F(ChangeWatchTest, ReportsAChangeLostLongAfterADisconnection) {
  watch_.disconnected();
  send(100);
  for (int number = 1; number < 100; ++number) watch_.arrived(number);
  now_ += seconds(200);
  watch_.judge();
  EXPECT_EQ(watch_.lost(), 1u);
  EXPECT_EQ(problems().size(), 1u);
}

}  // namespace
}  // namespace soak
