// A stop in every state of a stream, while messages arrive as fast as possible. The states are
// forced, not left to chance. The table below has every state, and what a stop does in it.
#include <future>

#include "tests/proof/stop/StopTest.h"

namespace proof {
namespace {

using standin::SlotSet;
using std::chrono::milliseconds;

// What the test does with the stream once both streams carry values.
enum class Course {
  Quiet,  // the server sends nothing more
  Flood,  // the server sends messages as fast as possible
  Ends,   // the server ends the stream
};

// Who deletes the payload.
enum class Deletes { Loop, Flush, Destructor };

// What the stop waits for.
enum class Waits { Never, ForTheAlarm };

struct State {
  const char* name;    // of the test
  const char* state;   // of the stream when the stop begins
  const char* detail;  // of the event, empty if there is only one kind
  const char* place;   // where the event is, or the loop with it
  Course course;
  Step step;
  Moment moment;
  int nth;
  std::optional<bool> ok;
  std::optional<bool> handAs;
  Deletes deletes;
  Waits waits;
  const char* slot;  // the value of the stream's slot at the end
};

void PrintTo(const State& state, std::ostream* out) {
  *out << state.name;
}

constexpr auto any = std::nullopt;
constexpr auto first = "first";  // the one message that every stream gets
constexpr auto next = "next";    // the messages of the flood

constexpr auto inQueue = "the event waits in the queue";
constexpr auto inHand = "the loop has the event and has not checked its flag";
constexpr auto atWork = "the loop has checked its flag and handles the event";
constexpr auto underWay = "the operation is under way";
constexpr auto threadGone = "an exception has ended the loop";

// Every state, and in each state every place where its event can be. The module's start makes a
// stream's first attempt, so the rows of Starting, which need traffic, use the second one.
const State states[] = {
    {"StartingUnderWay", "Starting", "", underWay, Course::Ends, Step::Start, Moment::Pending, 2,
     any, any, Deletes::Flush, Waits::Never, first},
    {"StartingStartedTaken", "Starting", "the call has started", inHand, Course::Ends, Step::Start,
     Moment::Taken, 2, true, any, Deletes::Destructor, Waits::Never, first},
    {"StartingStartedAtWork", "Starting", "the call has started", atWork, Course::Ends, Step::Start,
     Moment::HandedOn, 2, true, any, Deletes::Flush, Waits::Never, first},
    {"StartingFailedTaken", "Starting", "the call has failed", inHand, Course::Ends, Step::Start,
     Moment::Taken, 2, any, false, Deletes::Destructor, Waits::Never, first},
    {"StartingFailedAtWork", "Starting", "the call has failed", atWork, Course::Ends, Step::Start,
     Moment::HandedOn, 2, any, false, Deletes::Flush, Waits::ForTheAlarm, first},
    {"StartingRaised", "Starting", "", threadGone, Course::Ends, Step::Start, Moment::Raised, 2,
     any, any, Deletes::Destructor, Waits::Never, first},

    {"ReadingUnderWay", "Reading", "", underWay, Course::Quiet, Step::Read, Moment::Pending, 2, any,
     any, Deletes::Flush, Waits::Never, first},
    {"ReadingFlooded", "Reading", "", inQueue, Course::Flood, Step::Read, Moment::Pending, 50, any,
     any, Deletes::Flush, Waits::Never, next},
    {"ReadingMessageTaken", "Reading", "a message has arrived", inHand, Course::Flood, Step::Read,
     Moment::Taken, 2, true, any, Deletes::Destructor, Waits::Never, first},
    {"ReadingMessageAtWork", "Reading", "a message has arrived", atWork, Course::Flood, Step::Read,
     Moment::HandedOn, 2, true, any, Deletes::Flush, Waits::Never, next},
    {"ReadingEndTaken", "Reading", "the stream has ended", inHand, Course::Ends, Step::Read,
     Moment::Taken, 1, false, any, Deletes::Destructor, Waits::Never, first},
    {"ReadingEndAtWork", "Reading", "the stream has ended", atWork, Course::Ends, Step::Read,
     Moment::HandedOn, 1, false, any, Deletes::Flush, Waits::Never, first},
    {"ReadingRaised", "Reading", "", threadGone, Course::Flood, Step::Read, Moment::Raised, 2, any,
     any, Deletes::Destructor, Waits::Never, first},

    {"FinishingUnderWay", "Finishing", "", inQueue, Course::Ends, Step::Finish, Moment::Pending, 1,
     any, any, Deletes::Flush, Waits::Never, first},
    {"FinishingTaken", "Finishing", "with success", inHand, Course::Ends, Step::Finish,
     Moment::Taken, 1, true, any, Deletes::Destructor, Waits::Never, first},
    {"FinishingAtWork", "Finishing", "with success", atWork, Course::Ends, Step::Finish,
     Moment::HandedOn, 1, true, any, Deletes::Flush, Waits::ForTheAlarm, first},
    {"FinishingNotOkTaken", "Finishing", "with a failure", inHand, Course::Ends, Step::Finish,
     Moment::Taken, 1, any, false, Deletes::Destructor, Waits::Never, first},
    {"FinishingNotOkAtWork", "Finishing", "with a failure", atWork, Course::Ends, Step::Finish,
     Moment::HandedOn, 1, any, false, Deletes::Flush, Waits::ForTheAlarm, first},
    {"FinishingRaised", "Finishing", "", threadGone, Course::Ends, Step::Finish, Moment::Raised, 1,
     any, any, Deletes::Destructor, Waits::Never, first},

    {"WaitingUnderWay", "Waiting", "", underWay, Course::Ends, Step::Retry, Moment::Pending, 1, any,
     any, Deletes::Flush, Waits::ForTheAlarm, first},
    {"WaitingTaken", "Waiting", "with success", inHand, Course::Ends, Step::Retry, Moment::Taken, 1,
     true, any, Deletes::Destructor, Waits::Never, first},
    {"WaitingAtWork", "Waiting", "with success", atWork, Course::Ends, Step::Retry,
     Moment::HandedOn, 1, true, any, Deletes::Loop, Waits::Never, first},
    {"WaitingNotOkTaken", "Waiting", "with a failure", inHand, Course::Ends, Step::Retry,
     Moment::Taken, 1, any, false, Deletes::Destructor, Waits::Never, first},
    {"WaitingNotOkAtWork", "Waiting", "with a failure", atWork, Course::Ends, Step::Retry,
     Moment::HandedOn, 1, any, false, Deletes::Loop, Waits::Never, first},
    {"WaitingRaised", "Waiting", "", threadGone, Course::Ends, Step::Retry, Moment::Raised, 1, any,
     any, Deletes::Destructor, Waits::Never, first},
};

SlotSet otherOf(SlotSet set) {
  return set == SlotSet::Fast ? SlotSet::Slow : SlotSet::Fast;
}

std::string methodOf(SlotSet set) {
  return set == SlotSet::Fast ? "GetMetersFast" : "GetMetersSlow";
}

class StopInEveryState : public StopTest, public ::testing::WithParamInterface<State> {
 protected:
  void bringAbout(SlotSet subject) {
    const State& row = GetParam();
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

  // The other stream is Reading, in a flood: it is cancelled, and the flush deletes its payload.
  void expectAsTheTableSays(SlotSet subject, const Stop& seen) {
    const State& row = GetParam();
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
    if (GetParam().waits == Waits::Never) return;
    ASSERT_FALSE(alarms.empty());
    EXPECT_GE(seen.end, alarms.back().set);
    EXPECT_LT(seen.end, alarms.back().set + promptly);
  }

  milliseconds stopOnce(SlotSet subject, std::optional<milliseconds> retryAfter) {
    const State& row = GetParam();
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

// Shortens the five seconds of a retry, so that the stops that wait for it are short.
constexpr milliseconds soon{300};

TEST_P(StopInEveryState, EndsAsTheTableSays) {
  const State& row = GetParam();
  const auto rounds = scaled(1, 100);
  std::vector<milliseconds> durations;
  for (std::uint64_t round = 0; round < rounds && !HasFailure(); ++round) {
    for (const SlotSet subject : {SlotSet::Fast, SlotSet::Slow}) {
      SCOPED_TRACE(std::string(nameOf(subject)) + " in round " + std::to_string(round));
      durations.push_back(stopOnce(subject, soon));
    }
  }
  const char* const deleters[] = {"payloads deleted by the loop", "payloads deleted by the flush",
                                  "payloads deleted by the destructor"};
  const bool waits = row.waits == Waits::ForTheAlarm;
  auto figure =
      mostOf(waits ? "longest stop that waits for an alarm" : "longest stop that waits for none",
             longest(durations));
  // What waits for an alarm is judged by the alarm's own time.
  if (!waits) figure = std::move(figure).within(promptly);
  report({part,
          std::string("a stream in the state ") + row.state,
          std::string(row.detail) + (*row.detail == '\0' ? "" : ": ") + row.place,
          {{"stops under load", durations.size()}},
          "every payload is deleted once, and nothing leaks",
          {{deleters[static_cast<int>(row.deletes)], durations.size()}},
          {figure}});
}

INSTANTIATE_TEST_SUITE_P(, StopInEveryState, ::testing::ValuesIn(states),
                         [](const auto& state) { return std::string(state.param.name); });

}  // namespace
}  // namespace proof
