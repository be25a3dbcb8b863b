// A stop with SetParams calls in every state, forced as in states_proof.cpp; and how often a call
// is leaked when nothing is forced.
#include <future>

#include "tests/proof/stop/StopTest.h"

namespace proof {
namespace {

using standin::SlotSet;
using std::chrono::milliseconds;

enum class Answer { AtOnce, Held };

// Who deletes the payload. If the loop drops the event of a completed call, nothing refers to its
// payload any more, and it is leaked.
enum class Deletes { Loop, Flush, Nobody };

struct Row {
  const char* name;
  const char* state;
  Answer answer;
  int calls;
  Moment moment;  // of the first call
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
    {"AnsweredAtWork", "the loop has checked its flag and handles the event", Answer::AtOnce, 1,
     Moment::HandedOn, Deletes::Loop},
    {"AnsweredTaken", "the loop has the event and has not checked its flag", Answer::AtOnce, 1,
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

  // Nothing cancels the calls: the flush has both streams, and waits for the calls.
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
    EXPECT_EQ(seen.cancelled, 2);  // only the streams
    EXPECT_EQ(seen.payloadLines, row.deletes == Deletes::Flush ? 2 + row.calls : 2);
    EXPECT_EQ(seen.wakeUpLines, byNobody ? 1 : 0);
    EXPECT_EQ(seen.flushed, byNobody ? 1 : 0);
    EXPECT_EQ(seen.left, byNobody ? 1 : 0);
    EXPECT_EQ(seen.fast, "next");
    EXPECT_EQ(seen.slow, "next");
    if (row.answer == Answer::Held) {
      EXPECT_LT(seen.duration, promptly);
    }
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
  const char* const deleters[] = {"payloads deleted by the loop", "payloads deleted by the flush",
                                  "payloads leaked, at most one per stop"};
  std::vector<Measured> figures;
  if (!held) {
    figures = {
        mostOf("longest stop without calls to wait for", longest(durations)).within(promptly)};
  }
  report({part,
          "SetParams calls",
          std::to_string(row.calls) + (row.calls == 1 ? " call: " : " calls: ") + row.state,
          {{"stops under load", durations.size()}},
          "no call is cancelled: the stop waits for those that are in flight",
          {{deleters[static_cast<int>(row.deletes)],
            durations.size() * static_cast<std::uint64_t>(row.calls)}},
          figures});
}

INSTANTIATE_TEST_SUITE_P(, StopWithCalls, ::testing::ValuesIn(rows),
                         [](const auto& row) { return std::string(row.param.name); });

class StopAfterAChange : public StopTest {};

// How often the leak happens when nothing is forced. Everything else is deleted, every time.
TEST_F(StopAfterAChange, LeaksAtMostOneCall) {
  const auto rounds = scaled(150, 10'000);
  begin({});
  std::uint64_t lost = 0;
  for (std::uint64_t round = 0; round < rounds && !HasFailure(); ++round) {
    const int before = grpcUse().contexts;
    startModule();
    change(static_cast<int>(round));
    instance.stop();
    const int left = grpcUse().contexts - before;
    EXPECT_TRUE(left == 0 || left == 1) << left << " payloads leaked in round " << round;
    lost += left > 0;
    expectNothingLeft();
    host.clearRecords();
  }
  report({part,
          "right after a notification, with nothing forced",
          "",
          {{"stops", rounds}},
          "a stop leaks at most the one call whose event the loop had dropped",
          {{"stops leaked a call", lost}}});
}

TEST_F(StopAfterAChange, WaitsForANotificationUnderWay) {
  begin({.method = "SetParams", .step = Step::Unary, .moment = Moment::Pending});
  startModule();
  awaitOpenStreams();
  std::promise<void> notifying;
  std::promise<void> stopping;
  host.setHook(standin::Operation::KeyValueListForEach, [&] {
    host.setHook(standin::Operation::KeyValueListForEach, {});
    notifying.set_value();
    stopping.get_future().wait();
  });
  host.setHook(standin::Operation::RmCallback, [&] { stopping.set_value(); });
  auto notified = std::async(std::launch::async, [this] { change(7); });
  notifying.get_future().wait();
  const Stop seen = stopModule();
  notified.get();
  expectStopped(seen);
  EXPECT_EQ(seen.begun, 2);
  EXPECT_EQ(seen.joined, 3);
  EXPECT_EQ(seen.payloadLines, 3);
  EXPECT_EQ(seen.left, 0);
  servers->waitEvent("SetParams 1 ");
  report({part,
          "during a notification",
          "",
          {{"stops", 1}},
          "the stop waits for the notification and for its call"});
}

}  // namespace
}  // namespace proof
