// A stop in every state of streams and calls, forced and not hoped for, while messages arrive as
// fast as they can. The tables below are those of a stream's states and of what a stop finds.
#include <future>

#include "tests/proof/stop/StopTest.h"

namespace proof {
namespace {

using standin::SlotSet;
using std::chrono::milliseconds;

// What the test does once both streams carry values.
enum class Course {
  Quiet,  // the stream that is looked at is silent
  Flood,  // it gets messages as fast as they can come
  Ends,   // the server ends it
};

// Who deletes the payload.
enum class Deletes { Loop, Flush, Destructor };

// What the stop waits for.
enum class Lasts { Not, UntilTheAlarm };

struct Row {
  const char* name;   // of the test
  const char* state;  // of the stream when the stop begins
  const char* where;  // its event is, or the loop with it
  Course course;
  Step step;
  Moment moment;
  int nth;
  std::optional<bool> ok;
  std::optional<bool> handAs;
  Deletes deletes;
  Lasts lasts;
  const char* slot;  // what the stream's slot holds in the end
};

void PrintTo(const Row& row, std::ostream* out) {
  *out << row.name;
}

constexpr auto any = std::nullopt;
constexpr auto first = "first";  // the one message that every stream gets
constexpr auto next = "next";    // those of the flood

constexpr auto inQueue = "the event waits in the queue";
constexpr auto inHand = "the loop has the event and has not looked at its flag";
constexpr auto atWork = "the loop has looked, the event's work begins";
constexpr auto notThere = "the operation is under way";
constexpr auto threadGone = "an exception has ended the loop there";

// A row for each state, and in each for every place that its event can be at. The first attempt of
// a stream is that of the start; where a row needs a Starting that comes amid traffic, it is the
// second one.
const Row rows[] = {
    {"StartingUnderWay", "Starting", notThere, Course::Ends, Step::Start, Moment::Pending, 2, any,
     any, Deletes::Flush, Lasts::Not, first},
    {"StartingStartedTaken", "Starting, started", inHand, Course::Ends, Step::Start, Moment::Taken,
     2, true, any, Deletes::Destructor, Lasts::Not, first},
    {"StartingStartedAtWork", "Starting, started", atWork, Course::Ends, Step::Start,
     Moment::HandedOn, 2, true, any, Deletes::Flush, Lasts::Not, first},
    {"StartingFailedTaken", "Starting, failed", inHand, Course::Ends, Step::Start, Moment::Taken, 2,
     any, false, Deletes::Destructor, Lasts::Not, first},
    {"StartingFailedAtWork", "Starting, failed", atWork, Course::Ends, Step::Start,
     Moment::HandedOn, 2, any, false, Deletes::Flush, Lasts::UntilTheAlarm, first},
    {"StartingRaised", "Starting", threadGone, Course::Ends, Step::Start, Moment::Raised, 2, any,
     any, Deletes::Destructor, Lasts::Not, first},

    {"ReadingUnderWay", "Reading", notThere, Course::Quiet, Step::Read, Moment::Pending, 2, any,
     any, Deletes::Flush, Lasts::Not, first},
    {"ReadingFlooded", "Reading", inQueue, Course::Flood, Step::Read, Moment::Pending, 50, any, any,
     Deletes::Flush, Lasts::Not, next},
    {"ReadingMessageTaken", "Reading, a message", inHand, Course::Flood, Step::Read, Moment::Taken,
     2, true, any, Deletes::Destructor, Lasts::Not, first},
    {"ReadingMessageAtWork", "Reading, a message", atWork, Course::Flood, Step::Read,
     Moment::HandedOn, 2, true, any, Deletes::Flush, Lasts::Not, next},
    {"ReadingEndTaken", "Reading, the end", inHand, Course::Ends, Step::Read, Moment::Taken, 1,
     false, any, Deletes::Destructor, Lasts::Not, first},
    {"ReadingEndAtWork", "Reading, the end", atWork, Course::Ends, Step::Read, Moment::HandedOn, 1,
     false, any, Deletes::Flush, Lasts::Not, first},
    {"ReadingRaised", "Reading", threadGone, Course::Flood, Step::Read, Moment::Raised, 2, any, any,
     Deletes::Destructor, Lasts::Not, first},

    {"FinishingUnderWay", "Finishing", inQueue, Course::Ends, Step::Finish, Moment::Pending, 1, any,
     any, Deletes::Flush, Lasts::Not, first},
    {"FinishingTaken", "Finishing, ok", inHand, Course::Ends, Step::Finish, Moment::Taken, 1, true,
     any, Deletes::Destructor, Lasts::Not, first},
    {"FinishingAtWork", "Finishing, ok", atWork, Course::Ends, Step::Finish, Moment::HandedOn, 1,
     true, any, Deletes::Flush, Lasts::UntilTheAlarm, first},
    {"FinishingNotOkTaken", "Finishing, not ok", inHand, Course::Ends, Step::Finish, Moment::Taken,
     1, any, false, Deletes::Destructor, Lasts::Not, first},
    {"FinishingNotOkAtWork", "Finishing, not ok", atWork, Course::Ends, Step::Finish,
     Moment::HandedOn, 1, any, false, Deletes::Flush, Lasts::UntilTheAlarm, first},
    {"FinishingRaised", "Finishing", threadGone, Course::Ends, Step::Finish, Moment::Raised, 1, any,
     any, Deletes::Destructor, Lasts::Not, first},

    {"WaitingUnderWay", "Waiting", notThere, Course::Ends, Step::Retry, Moment::Pending, 1, any,
     any, Deletes::Flush, Lasts::UntilTheAlarm, first},
    {"WaitingTaken", "Waiting, ok", inHand, Course::Ends, Step::Retry, Moment::Taken, 1, true, any,
     Deletes::Destructor, Lasts::Not, first},
    {"WaitingAtWork", "Waiting, ok", atWork, Course::Ends, Step::Retry, Moment::HandedOn, 1, true,
     any, Deletes::Loop, Lasts::Not, first},
    {"WaitingNotOkTaken", "Waiting, not ok", inHand, Course::Ends, Step::Retry, Moment::Taken, 1,
     any, false, Deletes::Destructor, Lasts::Not, first},
    {"WaitingNotOkAtWork", "Waiting, not ok", atWork, Course::Ends, Step::Retry, Moment::HandedOn,
     1, any, false, Deletes::Loop, Lasts::Not, first},
    {"WaitingRaised", "Waiting", threadGone, Course::Ends, Step::Retry, Moment::Raised, 1, any, any,
     Deletes::Destructor, Lasts::Not, first},
};

SlotSet otherOf(SlotSet set) {
  return set == SlotSet::Fast ? SlotSet::Slow : SlotSet::Fast;
}

std::string methodOf(SlotSet set) {
  return set == SlotSet::Fast ? "GetMetersFast" : "GetMetersSlow";
}

class StopInEveryState : public StopTest, public ::testing::WithParamInterface<Row> {
 protected:
  void bringAbout(SlotSet subject) {
    const Row& row = GetParam();
    const std::string name(nameOf(subject));
    deliver(otherOf(subject), next, 0);
    deliver(subject, first);
    if (row.course == Course::Flood) send(subject, next, 0);
    if (row.course == Course::Ends) servers->command("end " + name + " OK");
    gate->awaitReached();
    if (row.moment != Moment::Raised) return;
    ASSERT_TRUE(host.waitUntil(
        [&] { return log().back() == "log 1 C++ exception in asyncMainLoop(): no more"; }));
  }

  // The other stream is Reading, in a flood: it is cancelled, and the flush deletes it.
  void expectAsTheTableSays(SlotSet subject, const Stop& seen) {
    const Row& row = GetParam();
    const bool byLoop = row.deletes == Deletes::Loop;
    const bool byFlush = row.deletes == Deletes::Flush;
    const bool wakeUpIsLeft = row.moment == Moment::Taken || row.moment == Moment::Raised;
    EXPECT_EQ(seen.begun, 2);
    EXPECT_EQ(seen.joined, byLoop ? 1 : 2);
    EXPECT_EQ(seen.cancelled, byLoop ? 1 : 2);
    EXPECT_EQ(seen.payloadLines, byFlush ? 2 : 1);
    EXPECT_EQ(seen.wakeUpLines, wakeUpIsLeft ? 1 : 0);
    EXPECT_EQ(seen.flushed, row.deletes == Deletes::Destructor ? 1 : 0);
    EXPECT_EQ(seen.left, 0);
    EXPECT_EQ(subject == SlotSet::Fast ? seen.fast : seen.slow, row.slot);
    EXPECT_EQ(subject == SlotSet::Fast ? seen.slow : seen.fast, next);
  }

  void expectInTime(const Stop& seen) {
    const auto alarms = gate->retryAlarms();
    if (GetParam().lasts == Lasts::Not) {
      EXPECT_LT(seen.duration, promptly);
      return;
    }
    ASSERT_FALSE(alarms.empty());
    EXPECT_GE(seen.end, alarms.back().set);
    EXPECT_LT(seen.end, alarms.back().set + promptly);
  }

  milliseconds stopOnce(SlotSet subject, std::optional<milliseconds> retryAfter) {
    const Row& row = GetParam();
    begin({.method = methodOf(subject),
           .step = row.step,
           .moment = row.moment,
           .nth = row.nth,
           .ok = row.ok,
           .handAs = row.handAs,
           .retryAfter = retryAfter});
    startModule();
    awaitOpenStreams();
    bringAbout(subject);
    const Stop seen = stopModule();
    expectStopped(seen);
    expectAsTheTableSays(subject, seen);
    expectInTime(seen);
    return seen.duration;
  }
};

// So that most stops need not wait for the five seconds.
constexpr milliseconds soon{300};

TEST_P(StopInEveryState, EndsAsTheTableSays) {
  const Row& row = GetParam();
  const auto rounds = scaled(1, 100);
  std::vector<milliseconds> durations;
  for (std::uint64_t round = 0; round < rounds && !HasFailure(); ++round) {
    for (const SlotSet subject : {SlotSet::Fast, SlotSet::Slow}) {
      SCOPED_TRACE(std::string(nameOf(subject)) + " in round " + std::to_string(round));
      durations.push_back(stopOnce(subject, soon));
    }
  }
  const char* const deleters[] = {"the loop", "the flush", "the destructor"};
  report({"Stop in every state", std::string(row.state) + ": " + row.where,
          std::to_string(durations.size()) + " stops amid floods, both streams",
          std::string("deleted by ") + deleters[static_cast<int>(row.deletes)] + ", " +
              (row.lasts == Lasts::Not ? "at once" : "when the alarm comes") + ", " +
              longest(durations)});
}

INSTANTIATE_TEST_SUITE_P(, StopInEveryState, ::testing::ValuesIn(rows),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace proof
