// A stop with SetParams calls in every state, forced as in states_test.cpp, and the one state in
// which a call is lost, counted.
#include <future>

#include "tests/proof/stop/StopTest.h"

namespace proof {
namespace {

using standin::SlotSet;
using std::chrono::milliseconds;

enum class Answer { AtOnce, Held };

// Who deletes the payload. Nobody: a completion that the loop has dropped belongs to nobody any
// more, and is given up.
enum class Deletes { Loop, Flush, Nobody };

struct Row {
  const char* name;
  const char* state;
  Answer answer;
  int calls;
  Moment moment;  // with the first of them
  Deletes deletes;
};

void PrintTo(const Row& row, std::ostream* out) {
  *out << row.name;
}

const Row rows[] = {
    {"InFlight", "in flight", Answer::Held, 1, Moment::Pending, Deletes::Flush},
    {"SeveralInFlight", "in flight", Answer::Held, 5, Moment::Pending, Deletes::Flush},
    {"Answered", "its event waits in the queue", Answer::AtOnce, 5, Moment::Pending,
     Deletes::Flush},
    {"AnsweredAtWork", "the loop has looked, the event's work begins", Answer::AtOnce, 1,
     Moment::HandedOn, Deletes::Loop},
    {"AnsweredTaken", "the loop has the event and has not looked at its flag", Answer::AtOnce, 1,
     Moment::Taken, Deletes::Nobody},
};

class StopWithCalls : public StopTest, public ::testing::WithParamInterface<Row> {
 protected:
  void bringAbout() {
    const Row& row = GetParam();
    if (row.answer == Answer::Held) servers->command("engine hold");
    startModule();
    awaitOpenStreams();
    deliver(SlotSet::Fast, "next", 0);
    deliver(SlotSet::Slow, "next", 0);
    for (int call = 1; call <= row.calls; ++call) change(call);
    gate->awaitReached();
    for (int call = 1; call <= row.calls; ++call) servers->waitEvent("SetParams ");
  }

  // Nothing cancels the calls: the flush has the streams, and waits.
  Stop stopAndAnswer() {
    auto stopping = std::async(std::launch::async, [this] { return stopModule(); });
    const auto flushed = [this] {
      const Journal lines = log();
      return std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
        return line.starts_with("log 1 Flushing tag 0x");
      });
    };
    EXPECT_TRUE(host.waitUntil([&] { return flushed() == 2; }));
    EXPECT_NE(log().back(), stopSteps.back());
    servers->command("engine release");
    return stopping.get();
  }

  void expectAsTheTableSays(const Stop& seen) {
    const Row& row = GetParam();
    const bool byLoop = row.deletes == Deletes::Loop;
    const bool byNobody = row.deletes == Deletes::Nobody;
    EXPECT_EQ(seen.begun, 2 + row.calls);
    EXPECT_EQ(seen.joined, byLoop ? 2 : 2 + row.calls);
    EXPECT_EQ(seen.cancelled, 2);  // the streams alone
    EXPECT_EQ(seen.payloadLines, row.deletes == Deletes::Flush ? 2 + row.calls : 2);
    EXPECT_EQ(seen.wakeUpLines, byNobody ? 1 : 0);
    EXPECT_EQ(seen.flushed, byNobody ? 1 : 0);
    EXPECT_EQ(seen.left, byNobody ? 1 : 0);
    EXPECT_EQ(seen.fast, "next");
    EXPECT_EQ(seen.slow, "next");
    EXPECT_LT(seen.duration, promptly);
  }
};

TEST_P(StopWithCalls, EndsAsTheTableSays) {
  const Row& row = GetParam();
  const bool held = row.answer == Answer::Held;
  const auto rounds = scaled(2, 200);
  std::vector<milliseconds> durations;
  for (std::uint64_t round = 0; round < rounds && !HasFailure(); ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    begin({.method = "SetParams", .step = Step::Unary, .moment = row.moment});
    bringAbout();
    const Stop seen = held ? stopAndAnswer() : stopModule();
    expectStopped(seen);
    expectAsTheTableSays(seen);
    durations.push_back(seen.duration);
  }
  const char* const deleters[] = {"deleted by the loop", "deleted by the flush",
                                  "left, as is accepted: one payload a stop"};
  report({"Stop in every state", std::to_string(row.calls) + " SetParams: " + row.state,
          std::to_string(durations.size()) + " stops amid floods",
          std::string(deleters[static_cast<int>(row.deletes)]) + ", " +
              (held ? "when answered" : "at once, " + longest(durations))});
}

INSTANTIATE_TEST_SUITE_P(, StopWithCalls, ::testing::ValuesIn(rows),
                         [](const auto& row) { return std::string(row.param.name); });

class StopAfterAChange : public StopTest {};

// What the table calls rare, unforced: how rare it is. Everything else is deleted, every time.
TEST_F(StopAfterAChange, LosesAtMostTheCallWhoseEventItDrops) {
  const auto rounds = scaled(150, 10'000);
  begin({});
  std::uint64_t lost = 0;
  for (std::uint64_t round = 0; round < rounds && !HasFailure(); ++round) {
    const int before = grpcUse().contexts;
    startModule();
    change(static_cast<int>(round));
    instance.stop();
    const int left = grpcUse().contexts - before;
    EXPECT_TRUE(left == 0 || left == 1) << left << " payloads left in round " << round;
    lost += left > 0;
    expectNothingLeft();
    host.clearRecords();
  }
  report({"Stop in every state", "right after a change, unforced",
          std::to_string(rounds) + " stops",
          std::to_string(lost) + " stops left the one call whose event the loop had dropped"});
}

// A change that is being told when the stop begins: the stop waits until it has been told, and its
// call goes out and is waited for.
TEST_F(StopAfterAChange, WaitsForOneThatIsBeingTold) {
  begin({.method = "SetParams", .step = Step::Unary, .moment = Moment::Pending});
  startModule();
  awaitOpenStreams();
  std::promise<void> telling;
  std::promise<void> stopping;
  host.setHook(standin::Operation::KeyValueListForEach, [&] {
    host.setHook(standin::Operation::KeyValueListForEach, {});
    telling.set_value();
    stopping.get_future().wait();
  });
  host.setHook(standin::Operation::RmCallback, [&] { stopping.set_value(); });
  auto told = std::async(std::launch::async, [this] { change(7); });
  telling.get_future().wait();
  const Stop seen = stopModule();
  told.get();
  expectStopped(seen);
  EXPECT_EQ(seen.begun, 2);
  EXPECT_EQ(seen.joined, 3);
  EXPECT_EQ(seen.payloadLines, 3);
  EXPECT_EQ(seen.left, 0);
  servers->waitEvent("SetParams 1 ");
  report({"Stop in every state", "a change is being told", "1 stop",
          "the stop waits for it, its call goes out and is waited for"});
}

}  // namespace
}  // namespace proof
