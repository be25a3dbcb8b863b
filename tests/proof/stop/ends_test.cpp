// The ends of a stream that a stop can come upon besides those of the table: servers that hold, are
// silent or not there, both streams waiting, clocks that jump; and the ways in which a stop fails.
#include <csignal>
#include <future>

#include "tests/proof/stop/StopTest.h"

namespace proof {
namespace {

using standin::SlotSet;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr auto part = "Stop in every state";
constexpr milliseconds retryDelay{5000};

class StopAt : public StopTest {
 protected:
  void expectBothStreamsFlushed(const Stop& seen) {
    expectStopped(seen);
    EXPECT_EQ(seen.begun, 2);
    EXPECT_EQ(seen.joined, 2);
    EXPECT_EQ(seen.cancelled, 2);
    EXPECT_EQ(seen.payloadLines, 2);
    EXPECT_EQ(seen.wakeUpLines, 0);
    EXPECT_EQ(seen.left, 0);
  }

  void expectEndAtTheLastAlarm(const Stop& seen) {
    const auto alarms = gate->retryAlarms();
    ASSERT_FALSE(alarms.empty());
    EXPECT_GE(seen.end, alarms.back().set);
    EXPECT_LT(seen.end, alarms.back().set + promptly);
  }

  // The server takes connections and says nothing, and so it stays.
  void freeze() { servers->freeze(); }
  void giveUpServer() { servers->kill(); }

  static std::string inMilliseconds(milliseconds time) {
    return std::to_string(time.count()) + " ms";
  }
};

// ---- Starting, by the server's doing ------------------------------------------------------------

TEST_F(StopAt, AConnectionThatIsNeverAnsweredCancelsBothStarts) {
  begin({});
  freeze();
  startModule();
  const Stop seen = stopModule();
  expectBothStreamsFlushed(seen);
  EXPECT_LT(seen.duration, promptly);
  giveUpServer();
  report({part, "Starting: the server takes the connection and is silent", "1 stop",
          "both streams cancelled, at once: " + inMilliseconds(seen.duration)});
}

TEST_F(StopAt, TheFirstAttemptBeforeItsEvent) {
  begin({.method = "GetMetersFast", .step = Step::Start, .moment = Moment::Pending});
  startModule();
  gate->awaitReached();
  const Stop seen = stopModule();
  expectBothStreamsFlushed(seen);
  EXPECT_LT(seen.duration, promptly);
  report({part, "Starting: the first attempt of both streams", "1 stop",
          "both streams flushed, at once: " + inMilliseconds(seen.duration)});
}

TEST_F(StopAt, AStreamThatIsSwitchedOffFindsNone) {
  begin({});
  startModule("[Meters]\nEnableFastMeters=false\n");
  servers->waitEvent("open slow 1 ");
  deliver(SlotSet::Slow, "next", 0);
  const Stop seen = stopModule();
  expectStopped(seen);
  EXPECT_EQ(seen.begun, 1);
  EXPECT_EQ(seen.cancelled, 1);
  EXPECT_EQ(seen.left, 0);
  EXPECT_FALSE(servers->hasEvent("open fast "));
  report({part, "no payload: the stream is switched off", "1 stop", "skipped, nothing left"});
}

// ---- Waiting, in full ---------------------------------------------------------------------------

TEST_F(StopAt, BothStreamsWaitingLastsForTheRestOfTheFiveSeconds) {
  begin({});
  startModule();
  awaitOpenStreams();
  servers->command("end fast OK");
  servers->command("end slow UNAVAILABLE");
  gate->awaitStarted("GetMetersFast", Step::Retry, 1);
  gate->awaitStarted("GetMetersSlow", Step::Retry, 1);
  const Stop seen = stopModule();
  expectBothStreamsFlushed(seen);
  expectEndAtTheLastAlarm(seen);
  for (const auto& alarm : gate->retryAlarms()) EXPECT_GE(alarm.wanted - alarm.at, 4900ms);
  EXPECT_EQ(gate->startedCount("GetMetersFast", Step::Start), 1);
  EXPECT_EQ(gate->startedCount("GetMetersSlow", Step::Start), 1);
  report({part, "Waiting: both streams, the full five seconds", "1 stop",
          "one flush line each, at the alarms: " + inMilliseconds(seen.duration)});
}

// Calls do not wait for their server to come: without one, each comes to its end by itself.
TEST_F(StopAt, WithoutAServerEveryAttemptAndEveryCallHasEnded) {
  begin({});
  giveUpServer();
  startModule();
  gate->awaitStarted("GetMetersFast", Step::Retry, 1);
  gate->awaitStarted("GetMetersSlow", Step::Retry, 1);
  const int waiting = payloads();
  change(1);
  gate->awaitEvents("SetParams", Step::Unary, 1);
  // A stop that comes before the loop looks at the event would leave the call.
  ASSERT_TRUE(host.waitUntil([&] { return payloads() == waiting; }));
  const Stop seen = stopModule();
  expectStopped(seen);
  EXPECT_EQ(seen.left, 0);
  expectEndAtTheLastAlarm(seen);
  report({part, "Waiting: no server, calls that do not wait for one", "1 stop",
          "no call asked to wait for its server, all ended by themselves; at the alarms: " +
              inMilliseconds(seen.duration)});
}

// ---- A peer that has gone silent ----------------------------------------------------------------

class StopWithASilentPeer : public StopAt {
 protected:
  // A short run has pings after one second instead of ten.
  const int divisor = isFull() ? 1 : 10;

  // Without keepalive it would stay for ever: its ping after ten seconds, and ten more for the
  // answer, and as much again as a bound.
  const milliseconds keepalive{20'000 / divisor};
  const milliseconds keepaliveBound = 2 * keepalive + promptly;

  void flow() {
    startModule();
    awaitOpenStreams();
    deliver(SlotSet::Fast, "next", 0);
    deliver(SlotSet::Slow, "next", 0);
  }
};

TEST_F(StopWithASilentPeer, ItIsCancelledAtOnceBeforeItIsNoticed) {
  begin({});
  flow();
  freeze();
  const Stop seen = stopModule();
  expectStopped(seen);
  EXPECT_EQ(seen.left, 0);
  EXPECT_EQ(seen.cancelled, 2);
  EXPECT_LT(seen.duration, promptly);
  giveUpServer();
  report({part, "Reading: a peer that has fallen silent amid floods", "1 stop",
          "cancelled at once: " + inMilliseconds(seen.duration)});
}

TEST_F(StopWithASilentPeer, AnEndByKeepaliveIsAnEndLikeAnyOther) {
  begin({.keepaliveDivisor = divisor});
  flow();
  const auto frozen = steady_clock::now();
  freeze();
  gate->awaitStarted("GetMetersFast", Step::Retry, 1);
  gate->awaitStarted("GetMetersSlow", Step::Retry, 1);
  const auto noticed = steady_clock::now() - frozen;
  EXPECT_LT(noticed, keepaliveBound);
  EXPECT_EQ(gate->startedCount("GetMetersFast", Step::Finish), 1);
  const Stop seen = stopModule();
  expectBothStreamsFlushed(seen);
  expectEndAtTheLastAlarm(seen);
  EXPECT_EQ(seen.fast, "next");
  giveUpServer();
  report({part, "Waiting: after keepalive has ended a silent peer's streams", "1 stop",
          "ended after " + inMilliseconds(std::chrono::duration_cast<milliseconds>(noticed)) +
              (divisor == 1 ? "" : " (pings ten times sooner)") +
              ", slots kept, at the alarms: " + inMilliseconds(seen.duration)});
}

TEST_F(StopWithASilentPeer, ACallInFlightIsWaitedForUntilKeepaliveEndsIt) {
  begin({.method = "SetParams",
         .step = Step::Unary,
         .moment = Moment::Pending,
         .keepaliveDivisor = divisor});
  servers->command("engine hold");
  flow();
  change(1);
  servers->waitEvent("SetParams 1 ");
  freeze();
  const Stop seen = stopModule();
  expectStopped(seen);
  EXPECT_EQ(seen.cancelled, 2);
  EXPECT_EQ(seen.payloadLines, 3);
  EXPECT_EQ(seen.left, 0);
  EXPECT_LT(seen.duration, keepaliveBound);
  giveUpServer();
  report({part, "a SetParams in flight to a silent peer", "1 stop",
          "not cancelled; keepalive ends it" +
              std::string(divisor == 1 ? "" : " (pings ten times sooner)") + ": " +
              inMilliseconds(seen.duration)});
}

// ---- Clocks -------------------------------------------------------------------------------------

// The deadline is the wall clock's of the moment when the end was seen. gRPC turns it into its own
// steady time when the alarm is set, and waits for that by the wall clock.
class ClockStep : public StopAt, public ::testing::WithParamInterface<int> {
 protected:
  const seconds step{GetParam()};
  // A clock that is set back may delay what waits by it.
  const milliseconds bound = retryDelay + std::max(seconds(0), -step) + promptly;

  // The moment when the fast stream waits, and the clock has moved.
  steady_clock::time_point moveWhileWaiting() {
    awaitOpenStreams();
    servers->command("end fast OK");
    gate->awaitStarted("GetMetersFast", Step::Retry, 1);
    const auto set = steady_clock::now();
    clock.step(step);
    return set;
  }

  // Since that moment.
  milliseconds waited(steady_clock::time_point set) {
    const auto alarm = gate->retryAlarms().front();
    EXPECT_GE(alarm.wanted - alarm.at, 4900ms);
    EXPECT_LE(alarm.wanted - alarm.at, retryDelay);
    return std::chrono::duration_cast<milliseconds>(steady_clock::now() - set);
  }

  void reportWaited(const char* what, milliseconds time) {
    report({part,
            std::string("Waiting: the wall clock steps by ") + std::to_string(GetParam()) + " s, " +
                what,
            "1 stop", "the alarm came " + inMilliseconds(time) + " after it was set"});
  }

  MovedClock clock;
};

TEST_P(ClockStep, DuringAStopThatWaitsForTheAlarm) {
  begin({.method = "GetMetersFast", .step = Step::Retry, .moment = Moment::Pending});
  startModule();
  const auto set = moveWhileWaiting();
  const Stop seen = stopModule();
  const auto time = waited(set);
  expectBothStreamsFlushed(seen);
  EXPECT_LT(time, bound);
  reportWaited("during the stop", time);
}

TEST_P(ClockStep, BeforeTheRetry) {
  begin({});
  startModule();
  const auto set = moveWhileWaiting();
  gate->awaitEvents("GetMetersFast", Step::Retry, 1);
  const auto time = waited(set);
  EXPECT_LT(time, bound);
  servers->waitEvent("open fast 2 ");
  const Stop seen = stopModule();
  expectStopped(seen);
  EXPECT_EQ(seen.left, 0);
  reportWaited("before the retry", time);
}

INSTANTIATE_TEST_SUITE_P(, ClockStep, ::testing::Values(3, -3),
                         [](const auto& step) { return step.param < 0 ? "Back" : "Forward"; });

// ---- Stops that fail ----------------------------------------------------------------------------

class StopThatFails : public StopTest {
 protected:
  StopThatFails() { ::testing::FLAGS_gtest_death_test_style = "threadsafe"; }

  // In the process that is to die: its log is all that it leaves.
  void printLog() {
    host.setLogSink([](const standin::LogLine& line) {
      std::fprintf(stderr, "%d %s\n", line.level, line.text.c_str());
    });
  }

  static constexpr char noTargets[] = "[Meters]\nEnableFastMeters=false\nEnableSlowMeters=false\n";
};

// It is logged, the stop goes on to its end, and the thread that is still joinable ends the
// process.
TEST_F(StopThatFails, AtTheJoinGoesOnAndEndsTheProcess) {
  EXPECT_EXIT(
      {
        start(noTargets);
        printLog();
        const JoinFault fault;
        instance.stop();
      },
      ::testing::KilledBySignal(SIGABRT),
      "1 Stop gRPC Gateway client\n"
      "1 C\\+\\+ exception in stopClient\\(\\): no join: Invalid argument\n"
      "1 Stop gRPC Gateway complete\n"
      "1 Shutting down completion queue\n"
      "1 Starting completion queue flush\n"
      "(1 Flushing tag \\(nil\\)\n)?"
      "1 Completion queue flush ended\n");
  report({part, "the join raises", "1 stop",
          "logged, the stop goes on, the joinable thread ends the process"});
}

// Every line that the stop logs behind the entry's own, and each release of memory.
TEST_F(StopThatFails, AnywhereElseEndsTheProcess) {
  using standin::Operation;
  constexpr int lines = 8;
  int tried = 0;
  const auto dies = [&](Operation operation, int nth) {
    SCOPED_TRACE(nth);
    ++tried;
    EXPECT_EXIT(
        {
          start(noTargets);
          host.failCall(operation, nth);
          instance.stop();
        },
        ::testing::KilledBySignal(SIGABRT), "");
  };
  for (int nth = 2; nth <= lines; ++nth) dies(Operation::Log, nth);
  for (int nth = 1; nth <= 2; ++nth) dies(Operation::Free, nth);
  report({part, "the host raises within the destructors",
          std::to_string(tried) + " calls of the host, each failing once",
          "the process ends, each time"});
}

}  // namespace
}  // namespace proof
