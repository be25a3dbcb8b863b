// Situations that a stop can meet besides the states of states_proof.cpp: servers that are silent
// or absent, both streams waiting, clocks that jump; and the ways in which a stop can fail.
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

constexpr milliseconds retryDelay{5000};
constexpr auto silentOrAbsent = "silent or absent servers";
constexpr auto streamsAsAWhole = "streams at their start, waiting for their retry or switched off";

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

  // From here on the server accepts connections and sends nothing.
  void freeze() { servers->freeze(); }
  void giveUpServer() { servers->kill(); }

  static Measured inMilliseconds(const char* name, milliseconds time) {
    return measured(name, static_cast<double>(time.count()), ".0f", "ms");
  }

  // Stops that wait for an alarm have no limit here: they are judged by the alarm's own time.
  static void reportStop(const char* group, const std::string& what, const char* held,
                         const Stop& seen, std::optional<milliseconds> limit = {}) {
    auto figure = inMilliseconds("stops of", seen.duration);
    if (limit) figure = std::move(figure).within(*limit);
    report({part, group, what, {{"stops", 1}}, held, {}, {figure}});
  }
};

// ---- Starting -----------------------------------------------------------------------------------

TEST_F(StopAt, ASilentServerCancelsBothStreams) {
  begin({});
  freeze();
  startModule();
  const Stop seen = stopModule();
  expectBothStreamsFlushed(seen);
  giveUpServer();
  reportStop(silentOrAbsent, "a server that accepts the connection and sends nothing",
             "streams are cancelled at once", seen, promptly);
}

TEST_F(StopAt, TheFirstAttemptFlushesBothStreams) {
  begin({.method = "GetMetersFast", .step = Step::Start, .moment = Moment::Pending});
  startModule();
  gate->awaitReached();
  const Stop seen = stopModule();
  expectBothStreamsFlushed(seen);
  reportStop(streamsAsAWhole, "the first attempt of both streams",
             "streams that are opened are flushed at once", seen, promptly);
}

TEST_F(StopAt, AStreamThatIsSwitchedOffSkipsIt) {
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
  reportStop(streamsAsAWhole, "one stream is switched off", "streams that are off are skipped",
             seen, promptly);
}

// ---- Waiting for the full five seconds ----------------------------------------------------------

TEST_F(StopAt, ARetryOfBothStreamsWaitsForTheirAlarms) {
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
  reportStop(streamsAsAWhole, "both streams wait for their retry",
             "streams that wait are flushed at their alarms", seen);
}

// Calls do not wait for their server: without a server, each ends by itself.
TEST_F(StopAt, AnAbsentServerFindsNoCallWaitingForIt) {
  begin({});
  giveUpServer();
  startModule();
  gate->awaitStarted("GetMetersFast", Step::Retry, 1);
  gate->awaitStarted("GetMetersSlow", Step::Retry, 1);
  const int waiting = payloads();
  change(1);
  gate->awaitEvents("SetParams", Step::Unary, 1);
  // If the stop came before the loop has handled the event, the call would leak.
  ASSERT_TRUE(host.waitUntil([&] { return payloads() == waiting; }));
  const Stop seen = stopModule();
  expectStopped(seen);
  EXPECT_EQ(seen.left, 0);
  expectEndAtTheLastAlarm(seen);
  reportStop(silentOrAbsent, "no server", "no call waits for its server", seen);
}

// ---- A server that falls silent -----------------------------------------------------------------

class StopWithASilentServer : public StopAt {
 protected:
  // In a short run gRPC pings after one second instead of ten.
  const int divisor = isFull() ? 1 : 10;
  const std::string pings = isFull() ? "" : ", with pings ten times as frequent";

  // Only keepalive ends a call: it pings after ten seconds and waits ten more for the answer. The
  // bound is twice that.
  const milliseconds keepalive{20'000 / divisor};
  const milliseconds keepaliveBound = 2 * keepalive + promptly;

  void flow() {
    startModule();
    awaitOpenStreams();
    deliver(SlotSet::Fast, "next", 0);
    deliver(SlotSet::Slow, "next", 0);
  }
};

TEST_F(StopWithASilentServer, CancelsStreamsThatAreStillOpen) {
  begin({});
  flow();
  freeze();
  const Stop seen = stopModule();
  expectStopped(seen);
  EXPECT_EQ(seen.left, 0);
  EXPECT_EQ(seen.cancelled, 2);
  giveUpServer();
  reportStop(silentOrAbsent, "a server that falls silent under load",
             "streams are cancelled at once", seen, promptly);
}

TEST_F(StopWithASilentServer, WaitsForTheRetryOfStreamsThatKeepaliveHasEnded) {
  begin({.keepaliveDivisor = divisor});
  flow();
  const auto frozen = steady_clock::now();
  freeze();
  gate->awaitStarted("GetMetersFast", Step::Retry, 1);
  gate->awaitStarted("GetMetersSlow", Step::Retry, 1);
  const auto noticed = steady_clock::now() - frozen;
  EXPECT_EQ(gate->startedCount("GetMetersFast", Step::Finish), 1);
  const Stop seen = stopModule();
  expectBothStreamsFlushed(seen);
  expectEndAtTheLastAlarm(seen);
  EXPECT_EQ(seen.fast, "next");
  giveUpServer();
  report({part,
          silentOrAbsent,
          "keepalive has ended the streams" + pings,
          {{"stops", 1}},
          "keepalive ends streams, whose slots keep their values",
          {},
          {inMilliseconds("stops of", seen.duration),
           inMilliseconds("keepalive after", std::chrono::duration_cast<milliseconds>(noticed))
               .within(keepaliveBound)}});
}

TEST_F(StopWithASilentServer, WaitsForACallUntilKeepaliveEndsIt) {
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
  giveUpServer();
  reportStop(silentOrAbsent, "a SetParams call is in flight to a server that falls silent" + pings,
             "a call is waited for until keepalive ends it", seen, keepaliveBound);
}

// ---- Clocks -------------------------------------------------------------------------------------

// The module's deadline is a time on the wall clock, five seconds after it saw the end of the
// stream. gRPC converts it to its own steady time when the alarm is set, and waits for that by the
// wall clock.
class ClockStep : public StopAt, public ::testing::WithParamInterface<int> {
 protected:
  const seconds step{GetParam()};
  // A clock that is set back may delay the alarm.
  const milliseconds bound = retryDelay + std::max(seconds(0), -step) + promptly;

  // Moves the clock while the fast stream waits; returns the time just before.
  steady_clock::time_point moveWhileWaiting() {
    awaitOpenStreams();
    servers->command("end fast OK");
    gate->awaitStarted("GetMetersFast", Step::Retry, 1);
    const auto set = steady_clock::now();
    clock.step(step);
    return set;
  }

  // The time since then.
  milliseconds waited(steady_clock::time_point set) {
    const auto alarm = gate->retryAlarms().front();
    EXPECT_GE(alarm.wanted - alarm.at, 4900ms);
    EXPECT_LE(alarm.wanted - alarm.at, retryDelay);
    return std::chrono::duration_cast<milliseconds>(steady_clock::now() - set);
  }

  void reportWaited(const char* when, milliseconds time) const {
    report({part,
            "a step of the wall clock while a stream waits for its retry",
            std::to_string(GetParam()) + " s, " + when,
            {{"stops", 1}},
            "a step back delays the retry at most by the step",
            {},
            {inMilliseconds("retry alarm after", time).within(bound)}});
  }

  MovedClock clock;
};

TEST_P(ClockStep, DelaysAWaitingStopAtMostByTheStep) {
  begin({.method = "GetMetersFast", .step = Step::Retry, .moment = Moment::Pending});
  startModule();
  const auto set = moveWhileWaiting();
  const Stop seen = stopModule();
  const auto time = waited(set);
  expectBothStreamsFlushed(seen);
  reportWaited("during the stop", time);
}

TEST_P(ClockStep, DelaysARetryAtMostByTheStep) {
  begin({});
  startModule();
  const auto set = moveWhileWaiting();
  gate->awaitEvents("GetMetersFast", Step::Retry, 1);
  const auto time = waited(set);
  servers->waitEvent("open fast 2 ");
  const Stop seen = stopModule();
  expectStopped(seen);
  EXPECT_EQ(seen.left, 0);
  reportWaited("before the retry", time);
}

INSTANTIATE_TEST_SUITE_P(, ClockStep, ::testing::Values(3, -3),
                         [](const auto& step) { return step.param < 0 ? "Back" : "Forward"; });

// ---- Stops that fail ----------------------------------------------------------------------------

class FailingStop : public StopTest {
 protected:
  FailingStop() { ::testing::FLAGS_gtest_death_test_style = "threadsafe"; }

  // For a process that is about to die: only what it has printed remains.
  void printLog() {
    host.setLogSink([](const standin::LogLine& line) {
      std::fprintf(stderr, "%d %s\n", line.level, line.text.c_str());
    });
  }

  static constexpr char noTargets[] = "[Meters]\nEnableFastMeters=false\nEnableSlowMeters=false\n";
};

// The error is logged and the stop continues, until the thread, which is still joinable, ends the
// process.
TEST_F(FailingStop, LogsAJoinErrorAndEndsTheProcess) {
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
      "1 Completion queue flush ended\n");
  report({part,
          "joining the thread fails",
          "",
          {{"stops", 1}},
          "the error is logged, the stop continues, and the joinable thread ends the process"});
}

// The host throws at every line that the destructors log, and at every release of memory.
TEST_F(FailingStop, EndsTheProcessIfTheHostThrows) {
  using standin::Operation;
  constexpr int lines = 8;
  std::uint64_t tried = 0;
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
  report({part,
          "the host throws within the destructors",
          "",
          {{"calls of the host, each failing once", tried}},
          "the process ends"});
}

}  // namespace
}  // namespace proof
