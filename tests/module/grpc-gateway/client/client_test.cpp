// The client's internals: its event loop, its flush, and states that otherwise only a race
// reaches.
#include <gtest/gtest.h>

#include <csignal>
#include <functional>
#include <future>
#include <latch>
#include <stdexcept>
#include <thread>

#include "module/grpc-gateway/gRPCGatewayClient.h"
#include "standin/AcceptedLeak.h"
#include "standin/Host.h"
#include "standin/KeyValueList.h"
#include "tests/module/grpc-gateway/ModuleLog.h"
#include "tests/support/SimProcess.h"
#include "tests/support/TemporaryFolder.h"

namespace gateway {

using Journal = std::vector<std::string>;
using sonalith::grpcengine::RequestSetParams;

// A tag whose events and deletion a test can observe.
class Probe : public AsyncEventPayload {
 public:
  explicit Probe(
      int& deletions, bool throws = false, std::function<void()> within = [] {})
      : deletions_(deletions), throws_(throws), within_(std::move(within)) {}
  ~Probe() override { ++deletions_; }

  void Proceed(bool ok) override {
    if (throws_) throw std::runtime_error("no more");
    within_();
    std::promise<bool> taken = std::move(taken_);
    delete this;
    taken.set_value(ok);
  }

  std::future<bool> taken() { return taken_.get_future(); }

 private:
  int& deletions_;
  bool throws_;
  std::function<void()> within_;
  std::promise<bool> taken_;
};

class gRPCGatewayClientTest : public ::testing::Test {
 protected:
  std::shared_ptr<const ConfigManager> parse(const std::string& text) {
    return std::make_shared<const ConfigManager>(files.write("gateway.conf", text));
  }
  std::unique_ptr<gRPCGatewayClient> build(const std::string& text) {
    return std::make_unique<gRPCGatewayClient>(parse(text));
  }

  static constexpr char noTargets[] = "[Meters]\nEnableFastMeters=false\nEnableSlowMeters=false\n";
  static std::string engineAt(const std::string& target) {
    return std::string(noTargets).append("[Engine]\nTarget=").append(target).append("\n");
  }

  // Access to the client's private parts: friendship does not extend to the tests themselves.
  static void startClient(gRPCGatewayClient& client) { client.startClient(); }
  static void stopClient(gRPCGatewayClient& client) { client.stopClient(); }
  static bool isRunning(const gRPCGatewayClient& client) { return client.running; }
  static void startFast(gRPCGatewayClient& client) { client.startFastMetersRequest(); }
  static void startSlow(gRPCGatewayClient& client) { client.startSlowMetersRequest(); }
  static AsyncMetersPayload*& fastPayload(gRPCGatewayClient& client) { return client.fastPayload; }
  static AsyncMetersPayload*& slowPayload(gRPCGatewayClient& client) { return client.slowPayload; }
  static bool hasMetersStub(const gRPCGatewayClient& client) {
    return client.metersStub != nullptr;
  }
  static bool hasEngineStub(const gRPCGatewayClient& client) {
    return client.engineStub != nullptr;
  }
  static std::string defaultTargets(const gRPCGatewayClient& client) {
    return client.defaultMetersTarget + " " + client.defaultEngineTarget;
  }
  static grpc::CompletionQueue& queue(gRPCGatewayClient& client) { return client.completionQueue; }

  // The loop may drop this call's event if it takes it just as the client is being destroyed.
  static void send(gRPCGatewayClient& client, const standin::KeyValueList& changes) {
    const AcceptedLeak callDroppedByAStop;
    client.sendParams(&changes);
  }

  // Puts an event for `tag` on the client's queue.
  void post(gRPCGatewayClient& client, void* tag) {
    alarms.push_back(std::make_unique<grpc::Alarm>());
    alarms.back()->Set(&queue(client), gpr_now(GPR_CLOCK_REALTIME), tag);
  }

  Journal log() const {
    expectModuleLog(host.log());
    Journal lines;
    for (const standin::LogLine& line : host.log()) {
      lines.push_back(std::to_string(line.level).append(" ").append(line.text));
    }
    return lines;
  }
  static std::string flushLine(const void* tag) {
    char text[64];
    std::snprintf(text, sizeof(text), "1 Flushing tag %p", tag);
    return text;
  }

  void expectNothingLeft() const {
    EXPECT_EQ(host.outstanding(), standin::Outstanding{});
    EXPECT_EQ(host.violations(), std::vector<std::string>{});
  }

  standin::Host host;
  TemporaryFolder files;
  std::vector<std::unique_ptr<grpc::Alarm>> alarms;  // outlive the client whose queue they use
};

// ---- Construction -------------------------------------------------------------------------------

TEST_F(gRPCGatewayClientTest, AClientWithoutTargetsHasNoStubsAndNoStreams) {
  const auto client = build(noTargets);
  EXPECT_FALSE(hasMetersStub(*client));
  EXPECT_FALSE(hasEngineStub(*client));
  EXPECT_EQ(fastPayload(*client), nullptr);
  EXPECT_EQ(slowPayload(*client), nullptr);
  // They look like a fallback but are none.
  EXPECT_EQ(defaultTargets(*client), "localhost:50005 localhost:50006");
}

TEST_F(gRPCGatewayClientTest, AClientHasAStubForEachTarget) {
  const auto client = build(engineAt(unusedTarget()));
  EXPECT_FALSE(hasMetersStub(*client));
  EXPECT_TRUE(hasEngineStub(*client));
}

TEST_F(gRPCGatewayClientTest, WithoutATargetNoStreamStarts) {
  const auto client = build(noTargets);
  startFast(*client);
  startSlow(*client);
  EXPECT_EQ(fastPayload(*client), nullptr);
  EXPECT_EQ(slowPayload(*client), nullptr);
}

TEST_F(gRPCGatewayClientTest, ASecondStartIsLoggedAndHasNoEffect) {
  const auto client = build(noTargets);
  host.clearRecords();
  startClient(*client);
  EXPECT_EQ(log(), (Journal{"1 Start gRPC Gateway Client", "1 gRPC Client already running!",
                            "1 Start gRPC complete"}));
}

TEST_F(gRPCGatewayClientTest, TheDestructorOfAStoppedClientLogsThatItIsStopped) {
  auto client = build(noTargets);
  stopClient(*client);
  host.clearRecords();
  client.reset();
  EXPECT_EQ(log(), (Journal{
                       "1 Destructing gRPC gateway client singleton",
                       "1 Stop gRPC Gateway client",
                       "1 gRPC GatewayClient already stopped!",
                       "1 Stop gRPC Gateway complete",
                       "1 Shutting down completion queue",
                       "1 Starting completion queue flush",
                       "1 Completion queue flush ended",
                   }));
  expectNothingLeft();
}

// ---- The event loop -----------------------------------------------------------------------------

TEST_F(gRPCGatewayClientTest, TheLoopSkipsANullTag) {
  const auto client = build(noTargets);
  int deletions = 0;
  auto* const probe = new Probe(deletions);
  std::future<bool> taken = probe->taken();
  post(*client, nullptr);
  post(*client, probe);
  EXPECT_TRUE(taken.get());
  EXPECT_EQ(deletions, 1);
}

TEST_F(gRPCGatewayClientTest, TheLoopPassesOnFailedEvents) {
  const auto client = build(noTargets);
  host.clearRecords();
  int deletions = 0;
  auto* const probe = new Probe(deletions);
  std::future<bool> taken = probe->taken();
  grpc::Alarm alarm;
  alarm.Set(&queue(*client), gpr_inf_future(GPR_CLOCK_REALTIME), probe);
  alarm.Cancel();
  EXPECT_FALSE(taken.get());
  EXPECT_EQ(log(), Journal{});
}

TEST_F(gRPCGatewayClientTest, AnExceptionEndsTheLoopAndTheClientStillStops) {
  auto client = build(noTargets);
  host.clearRecords();
  int deletions = 0;
  auto* const throwing = new Probe(deletions, true);
  post(*client, throwing);
  ASSERT_TRUE(host.waitUntil([&] { return !log().empty(); }));
  EXPECT_EQ(log(), (Journal{"1 C++ exception in asyncMainLoop(): no more"}));

  // The loop is gone; the flush deletes this one.
  auto* const left = new Probe(deletions);
  post(*client, left);
  host.clearRecords();
  client.reset();
  EXPECT_EQ(deletions, 1);
  const Journal lines = log();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), flushLine(left)), 1);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), flushLine(nullptr)), 1);  // the stop's alarm
  delete throwing;
}

// Exceptions derived from std::exception only end the loop; any other ends the process.
TEST_F(gRPCGatewayClientTest, AnExceptionNotDerivedFromStdExceptionEndsTheProcess) {
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT(
      {
        auto client = build(noTargets);
        int deletions = 0;
        std::latch throwing(1);
        post(*client, new Probe(deletions, false, [&] {
          throwing.count_down();
          throw 42;
        }));
        throwing.wait();
        client.reset();  // waits for the loop if the exception has not escaped from it
      },
      ::testing::KilledBySignal(SIGABRT), "");
}

// The stop begins while the loop handles an event and another one is pending. The loop checks the
// flag before it passes on an event, so the pending one is dropped.
TEST_F(gRPCGatewayClientTest, TheLoopPassesOnNoEventAfterTheStopHasBegun) {
  auto client = build(noTargets);
  int deletions = 0;
  std::latch taking(1);
  std::latch goOn(1);
  auto* const holding = new Probe(deletions, false, [&] {
    taking.count_down();
    goOn.wait();
  });
  const auto dropped = std::make_unique<Probe>(deletions, true);
  post(*client, holding);
  taking.wait();
  post(*client, dropped.get());
  host.clearRecords();
  auto stopped = std::async(std::launch::async, [&] { stopClient(*client); });
  while (isRunning(*client)) std::this_thread::yield();
  goOn.count_down();
  stopped.get();
  // The dropped event would have thrown, which would have been logged.
  EXPECT_EQ(log(), (Journal{"1 Stop gRPC Gateway client", "1 Stop gRPC Gateway complete"}));
  EXPECT_EQ(deletions, 1);
}

// ---- The flush ----------------------------------------------------------------------------------

TEST_F(gRPCGatewayClientTest, TheFlushDeletesATagOnceEvenIfItComesTwice) {
  auto client = build(noTargets);
  stopClient(*client);
  int deletions = 0;
  auto* const probe = new Probe(deletions);
  post(*client, probe);
  post(*client, probe);
  host.clearRecords();
  client.reset();
  EXPECT_EQ(deletions, 1);
  const Journal lines = log();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), flushLine(probe)), 2);
}

// The loop has taken and dropped the last event of such a stream, so the flush gets none.
TEST_F(gRPCGatewayClientTest, TheDestructorDeletesStreamsWithoutAPendingEvent) {
  auto client = build(noTargets);
  stopClient(*client);
  bool restarted = false;
  const auto held = std::make_shared<int>();
  for (AsyncMetersPayload** payload : {&fastPayload(*client), &slowPayload(*client)}) {
    *payload = new AsyncMetersPayload(&queue(*client), nullptr, nullptr, MeterEntryType::Fast,
                                      [&restarted, held] { restarted = true; });
  }
  client.reset();
  EXPECT_FALSE(restarted);
  EXPECT_EQ(held.use_count(), 1);
}

TEST_F(gRPCGatewayClientTest, TheDestructorDoesNotDeleteAStreamThatTheFlushHasDeleted) {
  auto client = build(noTargets);
  stopClient(*client);
  auto* const payload =
      new AsyncMetersPayload(&queue(*client), nullptr, nullptr, MeterEntryType::Slow, [] {});
  slowPayload(*client) = payload;
  post(*client, payload);
  host.clearRecords();
  client.reset();  // the address sanitizer would report a second deletion
  const Journal lines = log();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), flushLine(payload)), 1);
}

// A stream whose retry is due during the stop deletes itself and starts no other, so the client's
// pointer would dangle.
TEST_F(gRPCGatewayClientTest, ARetryDuringTheStopClearsThePointerToItsStream) {
  SimProcess server(SimProcess::anyPort, "");
  auto client = build("[Meters]\nTarget=" + server.metersTarget() + "\nEnableFastMeters=false\n");
  server.waitEvent("open slow 1 ");
  AsyncMetersPayload* const slow = slowPayload(*client);
  EXPECT_EQ(fastPayload(*client), nullptr);  // disabled
  stopClient(*client);
  fastPayload(*client) = slow;
  startFast(*client);
  EXPECT_EQ(fastPayload(*client), nullptr);
  EXPECT_EQ(slowPayload(*client), slow);

  slowPayload(*client) = nullptr;
  slowPayload(*client) = slow;
  startSlow(*client);
  EXPECT_EQ(slowPayload(*client), nullptr);
  slowPayload(*client) = slow;  // still open: the destructor ends it
  client.reset();
  EXPECT_FALSE(server.hasEvent("open slow 2 "));
  expectNothingLeft();
}

// ---- Parameters ---------------------------------------------------------------------------------

TEST_F(gRPCGatewayClientTest, NothingIsSentWithoutAnEngineTarget) {
  const auto client = build(noTargets);
  standin::KeyValueList changes;
  changes.addInt("a", 1);
  host.failCall(standin::Operation::KeyValueListForEach);  // the list is not even read
  EXPECT_NO_THROW(client->sendParams(&changes));
}

TEST_F(gRPCGatewayClientTest, NothingIsSentAfterTheStop) {
  SimProcess server("", SimProcess::anyPort);
  auto client = build(engineAt(server.engineTarget()));
  stopClient(*client);
  standin::KeyValueList changes;
  changes.addInt("a", 1);
  host.failCall(standin::Operation::KeyValueListForEach);
  const Journal before = log();
  EXPECT_NO_THROW(client->sendParams(&changes));
  EXPECT_EQ(log(), before);
  client.reset();
  EXPECT_FALSE(server.hasEvent("SetParams "));
}

// The filter passes on four types only, but the conversion knows all of them.
TEST_F(gRPCGatewayClientTest, ItemsOfEveryTypeAreSent) {
  SimProcess server("", SimProcess::anyPort);
  auto client = build(engineAt(server.engineTarget()));
  standin::KeyValueList changes;
  changes.addUint("u", 4294967295u)
      .addInt("i", -1)
      .addFloat("f", 0.5f)
      .addString("s", "hi")
      .addUintArray("au", {1, 2})
      .addIntArray("ai", {-1, 2})
      .addFloatArray("af", {1, 2})
      .addDouble("d", 1.5)
      .addUintArray("empty au", {})
      .addIntArray("empty ai", {})
      .addFloatArray("empty af", {})
      .addOther("eight", 8, {})
      .addOther("largest", 4294967295u, {});
  send(*client, changes);

  RequestSetParams expected;
  const auto add = [&](const char* key) {
    auto* const param = expected.add_params();
    param->set_key(key);
    return param->mutable_value();
  };
  add("u")->set_suint(4294967295u);
  add("i")->set_sint(-1);
  add("f")->set_sfloat(0.5f);
  add("s")->set_sstring("hi");
  auto* const uints = add("au")->mutable_auint();
  uints->add_data(1);
  uints->add_data(2);
  auto* const ints = add("ai")->mutable_aint();
  ints->add_data(-1);
  ints->add_data(2);
  auto* const floats = add("af")->mutable_afloat();
  floats->add_data(1);
  floats->add_data(2);
  add("d")->set_sdouble(1.5);
  add("empty au")->mutable_auint();
  add("empty ai")->mutable_aint();
  add("empty af")->mutable_afloat();
  add("eight");
  add("largest");
  EXPECT_EQ(server.waitEvent("SetParams 1 "),
            "SetParams 1 " + toHex(expected) + " deadline=none metadata=-");
  server.waitEvent("closed SetParams 1 ");
}

TEST_F(gRPCGatewayClientTest, AnItemThatCannotBeConvertedIsSentIncomplete) {
  host.setChoices({.iterationStopsAtOne = false});
  SimProcess server("", SimProcess::anyPort);
  auto client = build(engineAt(server.engineTarget()));
  host.clearRecords();
  standin::KeyValueList changes;
  changes.addInt("a", 1).addString("null text", nullptr).addInt(nullptr, 2).addInt("b", 3);
  send(*client, changes);

  RequestSetParams expected;
  expected.add_params()->set_key("a");
  expected.mutable_params(0)->mutable_value()->set_sint(1);
  expected.add_params()->set_key("null text");  // a key without a value
  expected.add_params();                        // neither key nor value
  expected.add_params()->set_key("b");
  expected.mutable_params(3)->mutable_value()->set_sint(3);
  EXPECT_EQ(server.waitEvent("SetParams 1 "),
            "SetParams 1 " + toHex(expected) + " deadline=none metadata=-");
  const std::string line =
      "3 exception while converting list: basic_string::_M_construct null not valid";
  EXPECT_EQ(log(), (Journal{line, line}));
  server.waitEvent("closed SetParams 1 ");
}

TEST_F(gRPCGatewayClientTest, NoItemIsSentAfterAFailureIfTheHostStopsTheIteration) {
  host.setChoices({.iterationStopsAtOne = true});
  SimProcess server("", SimProcess::anyPort);
  auto client = build(engineAt(server.engineTarget()));
  standin::KeyValueList changes;
  changes.addInt("a", 1).addString("null text", nullptr).addInt("b", 3);
  send(*client, changes);
  RequestSetParams expected;
  expected.add_params()->set_key("a");
  expected.mutable_params(0)->mutable_value()->set_sint(1);
  expected.add_params()->set_key("null text");
  EXPECT_EQ(server.waitEvent("SetParams 1 "),
            "SetParams 1 " + toHex(expected) + " deadline=none metadata=-");
  server.waitEvent("closed SetParams 1 ");
}

}  // namespace gateway
