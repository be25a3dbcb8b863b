// What each fault does to a client, on the wire.
#include <gtest/gtest.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <string>
#include <vector>

#include "meters.pb.h"
#include "tests/support/RawConnection.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/tools/sim/SimTest.h"
#include "tools/sim/HalfMessage.h"

namespace {

using boost::asio::ip::tcp;
using grpc::StatusCode;
using sonalith::grpc::AnyValue;
using sonalith::grpc::Meter;

constexpr int several = 10;

// Plays four keys, with these faults.
PlayingSim simWith(std::vector<std::string> faults, std::vector<std::string> more = {}) {
  std::vector<std::string> arguments{"--rate-fast",   "50",           "--rate-slow", "50",
                                     "--keys",        "fast:float:a", "fast:int:b",  "fast:uint:c",
                                     "fast:string:d", "slow:float:a"};
  arguments.insert(arguments.end(), more.begin(), more.end());
  for (auto& fault : faults) arguments.insert(arguments.end(), {"--fault", std::move(fault)});
  return PlayingSim(std::move(arguments));
}

// The first message for which `wanted` holds.
template <class Wanted>
std::string awaitMessage(RawCall& call, const Wanted& wanted) {
  for (;;) {
    const auto message = call.read();
    if (!message) throw std::runtime_error("the stream has ended");
    if (wanted(*message)) return *message;
  }
}

bool isParsed(const std::string& bytes) {
  return Meter().ParseFromString(bytes);
}

TEST(FaultEffect, EndClosesTheStreamWithItsStatus) {
  auto sim = simWith({"every 0.2: end fast DATA_LOSS", "every 0.2: end slow"});
  RawCall fast(sim.metersTarget(), fastPath);
  RawCall slow(sim.metersTarget(), slowPath);
  EXPECT_EQ(replyTo(fast).code, StatusCode::DATA_LOSS);
  EXPECT_EQ(replyTo(slow).code, StatusCode::OK);
}

TEST(FaultEffect, GarbageCannotBeParsed) {
  auto sim = simWith({"every 0.2: garbage fast"});
  RawCall call(sim.metersTarget(), fastPath);
  EXPECT_EQ(awaitMessage(call, [](const auto& bytes) { return !isParsed(bytes); }),
            "\xff\xff\xff\xff");
}

TEST(FaultEffect, NotUtf8SendsAMeterWithOneInvalidByte) {
  auto sim = simWith({"every 0.2: not-utf8 fast"});
  RawCall call(sim.metersTarget(), fastPath);
  auto bytes = awaitMessage(call, [](const auto& message) { return !isParsed(message); });
  for (auto& byte : bytes) {
    if (byte == '\xe9') byte = 'e';
  }
  EXPECT_EQ(meterOf(bytes).values(0).value().sstring().data(), "cafe");
}

TEST(FaultEffect, OversizeIsLargerThanClientsAccept) {
  auto sim = simWith({"every 0.3: oversize fast", "every 0.3: oversize slow 4.5"});
  RawCall fast(sim.metersTarget(), fastPath);
  RawCall slow(sim.metersTarget(), slowPath);
  const auto isLarge = [](const auto& bytes) { return bytes.size() > 4 * mebibyte; };
  EXPECT_GT(awaitMessage(fast, isLarge).size(), 5 * mebibyte);
  EXPECT_LT(awaitMessage(slow, isLarge).size(), 5 * mebibyte);
}

TEST(FaultEffect, UnknownHasUnconfiguredKeys) {
  auto sim = simWith({"every 0.2: unknown fast"});
  RawCall call(sim.metersTarget(), fastPath);
  awaitMessage(call, [](const auto& bytes) {
    return meterOf(bytes).values(0).key() == "nobody.knows.this";
  });
}

// Which member of each value is set.
std::vector<int> membersOf(const std::string& bytes) {
  const auto meter = meterOf(bytes);
  std::vector<int> members;
  for (const auto& entry : meter.values()) {
    members.push_back(static_cast<int>(entry.value().value_case()));
  }
  return members;
}

TEST(FaultEffect, TypesGivesEachKeyAWrongType) {
  auto sim = simWith({"every 0.2: types fast"});
  RawCall call(sim.metersTarget(), fastPath);
  const std::vector<int> others{AnyValue::kSstring, AnyValue::kSuint, AnyValue::kSfloat,
                                AnyValue::kSint};
  awaitMessage(call, [&](const auto& bytes) { return membersOf(bytes) == others; });
}

TEST(FaultEffect, ArraysSendsArraysAndDoubles) {
  auto sim = simWith({"every 0.2: arrays fast"});
  RawCall call(sim.metersTarget(), fastPath);
  const std::vector<int> arrays{AnyValue::kAfloat, AnyValue::kAint, AnyValue::kAuint,
                                AnyValue::kSdouble};
  awaitMessage(call, [&](const auto& bytes) { return membersOf(bytes) == arrays; });
}

TEST(FaultEffect, EmptyHasNoValues) {
  auto sim = simWith({"every 0.2: empty fast"});
  RawCall call(sim.metersTarget(), fastPath);
  awaitMessage(call, [](const auto& bytes) { return bytes.empty(); });
}

TEST(FaultEffect, AStalledStreamGetsNothing) {
  auto sim = simWith({"at 0: stall fast"});
  sim.process().waitLine("fault 0.000 stall fast");
  RawCall fast(sim.metersTarget(), fastPath);
  RawCall slow(sim.metersTarget(), slowPath);
  for (int i = 0; i < several; ++i) ASSERT_TRUE(slow.read());
  sim.process().signal(SIGTERM);
  EXPECT_EQ(fast.readAll(), Lines{});
}

TEST(FaultEffect, AStalledStreamContinuesAfterwards) {
  auto sim = simWith({"at 0 for 0.3: stall fast"});
  sim.process().waitLine("fault 0.000 stall fast");
  RawCall fast(sim.metersTarget(), fastPath);
  EXPECT_TRUE(fast.read());
  sim.process().waitLine("fault 0.300 stall fast over");
}

TEST(FaultEffect, NormalEndsLastingFaults) {
  auto sim =
      simWith({"at 0: stall fast", "at 0: fail ABORTED", "at 0: freeze meters", "at 0.3: normal"});
  RawCall fast(sim.metersTarget(), fastPath);
  EXPECT_TRUE(fast.read());
  sim.process().waitLine("fault 0.300 stall fast over");
  sim.process().waitLine("fault 0.300 freeze meters over");
  sim.process().waitLine("fault 0.300 fail engine ABORTED over");
  EXPECT_EQ(setParams(sim.engineTarget()).code, StatusCode::OK);
}

TEST(FaultEffect, ALastingFaultReplacesAnother) {
  auto sim = simWith({"at 0: stall fast", "at 0.2: flood fast"});
  sim.process().waitLine("fault 0.200 stall fast over");
  sim.process().waitLine("fault 0.200 flood fast");
  EXPECT_EQ(sim.process().lines().back(), "fault 0.200 flood fast");
}

TEST(FaultEffect, FloodSendsMoreThanTheRate) {
  PlayingSim sim({"--rate-slow", "0.001", "--fault", "at 0: flood slow"});
  RawCall slow(sim.metersTarget(), slowPath);
  constexpr int many = 1000;
  for (int i = 0; i < many; ++i) ASSERT_TRUE(slow.read());
}

// The messages of a flood are all the same.
TEST(FaultEffect, FloodEndsWithoutEndingTheStream) {
  PlayingSim sim(
      {"--rate-fast", "20", "--keys", "fast:int:a", "--fault", "at 0 for 0.3: flood fast"});
  RawCall fast(sim.metersTarget(), fastPath);
  sim.process().waitLine("fault 0.300 flood fast over");
  const auto first = meterOf(fast.read()).SerializeAsString();
  awaitMessage(fast, [&](const auto& bytes) { return bytes != first; });
}

// The streams share a connection.
TEST(FaultEffect, HalfDoesNotAffectTheOtherStream) {
  auto sim = simWith({"every 0.5 for 0.4: half fast"});
  const auto channel = connect(sim.metersTarget());
  RawCall fast(channel, fastPath);
  RawCall slow(channel, slowPath);
  ASSERT_TRUE(fast.read());
  sim.process().waitLine("fault 0.500 half fast");
  for (int i = 0; i < several; ++i) ASSERT_TRUE(slow.read());
  for (const auto& message : fast.readAll()) EXPECT_EQ(meterOf(message).values_size(), 4);
  EXPECT_NE(fast.finish(), StatusCode::OK);
  for (int i = 0; i < several; ++i) ASSERT_TRUE(slow.read());
}

// ---- Connections ----------------------------------------------------------------------------

TEST(FaultEffect, CloseEndsConnectionsInOrder) {
  auto sim = simWith({"every 0.3: close meters"});
  RawConnection connection(sim.metersTarget());
  connection.readToTheEnd();
  EXPECT_EQ(connection.lastError(), 0);
}

TEST(FaultEffect, ResetBreaksConnections) {
  auto sim = simWith({"every 0.3: reset meters"});
  RawConnection connection(sim.metersTarget());
  connection.readToTheEnd();
  EXPECT_EQ(connection.lastError(), ECONNRESET);
}

TEST(FaultEffect, RefusedConnectionsAreAcceptedAgainAtTheSamePort) {
  auto sim = simWith({"at 0 for 0.5: refuse engine"});
  sim.process().waitLine("fault 0.000 refuse engine");
  EXPECT_EQ(setParams(sim.engineTarget()).code, StatusCode::UNAVAILABLE);
  EXPECT_THROW(RawConnection{sim.engineTarget()}, std::runtime_error);
  sim.process().waitLine("fault 0.500 refuse engine over");
  EXPECT_EQ(setParams(sim.engineTarget()), (Reply{StatusCode::OK, {""}}));
}

TEST(FaultEffect, RefuseEndsExistingConnections) {
  auto sim = simWith({"every 0.3 for 0.1: refuse meters"});
  RawCall call(sim.metersTarget(), fastPath);
  EXPECT_EQ(replyTo(call).code, StatusCode::UNAVAILABLE);
}

TEST(FaultEffect, SilentConnectionsAreAcceptedAndAnsweredAfterwards) {
  auto sim = simWith({"at 0 for 0.5: silent meters"});
  sim.process().waitLine("fault 0.000 silent meters");
  RawConnection connection(sim.metersTarget());
  EXPECT_EQ(connection.read(1).size(), 1u);
  sim.process().waitLine("fault 0.500 silent meters over");
}

TEST(FaultEffect, FrozenConnectionsStayAndContinueAfterwards) {
  auto sim = simWith({"at 0.5 for 0.5: freeze meters"});
  RawCall call(sim.metersTarget(), fastPath);
  ASSERT_TRUE(call.read());
  sim.process().waitLine("fault 0.500 freeze meters");
  EXPECT_EQ(setParams(sim.engineTarget()).code, StatusCode::OK);
  sim.process().waitLine("fault 1.000 freeze meters over");
  for (int i = 0; i < several; ++i) ASSERT_TRUE(call.read());
}

TEST(FaultEffect, NothingPassesAFrozenConnection) {
  auto sim = simWith({"at 0: freeze engine"});
  sim.process().waitLine("fault 0.000 freeze engine");
  constexpr auto shortly = std::chrono::milliseconds(300);
  RawCall call(sim.engineTarget(), setParamsPath, "", [&](auto& context) {
    context.set_deadline(std::chrono::system_clock::now() + shortly);
  });
  EXPECT_EQ(replyTo(call).code, StatusCode::DEADLINE_EXCEEDED);
  EXPECT_FALSE(sim.process().hasLine("SetParams"));
}

TEST(FaultEffect, DrippingConnectionsAreSlow) {
  constexpr std::size_t bytes = 2000;
  constexpr double rate = 4000;
  auto sim = simWith({"at 0: drip meters 4000"}, {"--keys", "fast:int:" + std::string(bytes, 'k')});
  sim.process().waitLine("fault 0.000 drip meters");
  const auto begin = std::chrono::steady_clock::now();
  RawCall call(sim.metersTarget(), fastPath);
  ASSERT_TRUE(call.read());
  const std::chrono::duration<double> time = std::chrono::steady_clock::now() - begin;
  // The last piece, and what a connection may make up for, come without a pause.
  EXPECT_GE(time.count(), (bytes - rate / 10) / rate - 0.01);
}

TEST(FaultEffect, ServicesAtOneAddressShareTheirConnections) {
  const auto target = unusedTarget();
  ToolProcess sim(
      {"sim", "--meters", target, "--engine", target, "--fault", "at 0 for 0.3: refuse engine"});
  sim.waitLine("fault 0.000 refuse engine");
  EXPECT_EQ(setParams(target).code, StatusCode::UNAVAILABLE);
  sim.waitLine("fault 0.300 refuse engine over");
  EXPECT_EQ(setParams(target).code, StatusCode::OK);
  RawCall call(target, fastPath);
  EXPECT_TRUE(call.read());
}

TEST(FaultEffect, AServiceThatIsNotOfferedHasNoConnectionFaults) {
  ToolProcess sim({"sim", "--meters", SimProcess::anyPort, "--engine", "", "--fault", "at 0: close",
                   "--for", "0.2"});
  EXPECT_EQ(sim.waitExit(), 0);
  EXPECT_EQ(linesFrom(1, sim), Lines{"fault 0.000 close meters"});
}

TEST(FaultEffect, ARelayNamesABusyPort) {
  SimProcess first;
  ToolProcess second(
      {"sim", "--meters", first.metersTarget(), "--engine", "", "--fault", "at 0: close"});
  EXPECT_EQ(second.waitExit(), 1);
  EXPECT_NE(second.errors().find("can't listen on " + first.metersTarget()), std::string::npos);
}

// ---- The engine -----------------------------------------------------------------------------

TEST(FaultEffect, DelayedAnswersComeLater) {
  auto sim = simWith({"at 0: delay 0.3"});
  sim.process().waitLine("fault 0.000 delay engine 0.3");
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(setParams(sim.engineTarget()), (Reply{StatusCode::OK, {""}}));
  const std::chrono::duration<double> time = std::chrono::steady_clock::now() - begin;
  EXPECT_GE(time.count(), 0.3);
}

TEST(FaultEffect, UnansweredCallsAreAnsweredAfterwards) {
  auto sim = simWith({"at 0 for 0.5: no-reply"});
  sim.process().waitLine("fault 0.000 no-reply engine");
  EXPECT_EQ(setParams(sim.engineTarget()), (Reply{StatusCode::OK, {""}}));
  sim.process().waitLine("fault 0.500 no-reply engine over");
}

TEST(FaultEffect, UnansweredCallsEndWithTheSimulator) {
  auto sim = simWith({"at 0: no-reply"});
  sim.process().waitLine("fault 0.000 no-reply engine");
  RawCall call(sim.engineTarget(), setParamsPath, "\xff");
  sim.process().waitLine("SetParams 1 ");
  sim.process().signal(SIGTERM);
  EXPECT_EQ(sim.process().waitExit(), 130);
  EXPECT_NE(replyTo(call).code, StatusCode::OK);
}

TEST(FaultEffect, FailedCallsGetTheStatus) {
  auto sim = simWith({"at 0: fail engine PERMISSION_DENIED"});
  sim.process().waitLine("fault 0.000 fail engine PERMISSION_DENIED");
  EXPECT_EQ(setParams(sim.engineTarget()), (Reply{StatusCode::PERMISSION_DENIED, {}}));
}

TEST(FaultEffect, BadRepliesCannotBeParsed) {
  auto sim = simWith({"at 0: bad-reply"});
  sim.process().waitLine("fault 0.000 bad-reply engine");
  EXPECT_EQ(setParams(sim.engineTarget()), (Reply{StatusCode::OK, {"\xff"}}));
}

// While the relay refuses connections, another program can take its port. Then it can't listen
// again.
TEST(FaultEffect, AFailedFaultIsTriedAgainNextTime) {
  auto sim = simWith({"every 2: refuse meters", "at 4.5: empty fast"});
  sim.process().waitLine("fault 2.000 refuse meters");
  boost::asio::io_context loop;
  tcp::acceptor other(loop, {boost::asio::ip::address_v4::loopback(), portOf(sim.metersTarget())});
  sim.process().waitLine("fault 4.500 empty fast");
  other.close();
  sim.process().waitLine("fault 6.000 refuse meters");
  sim.process().waitError("gatewayctl sim: listen: ");
}

// ---- The run --------------------------------------------------------------------------------

Lines faultsOf(const std::string& seed) {
  ToolProcess sim({"sim", "--meters", SimProcess::anyPort, "--engine", SimProcess::anyPort, "--for",
                   "1.5", "--seed", seed, "--fault", "every 0.05..0.3: empty fast",
                   "at 0.2 for 0.5: freeze meters"});
  EXPECT_EQ(sim.waitExit(), 0);
  auto lines = linesFrom(2, sim);
  // Runs may differ in how far they get in their time.
  constexpr std::size_t surelyReached = 4;
  lines.resize(surelyReached);
  return lines;
}

TEST(FaultRun, IsTheSameWithTheSameSeed) {
  EXPECT_EQ(faultsOf("5"), faultsOf("5"));
  EXPECT_NE(faultsOf("5"), faultsOf("6"));
}

TEST(FaultRun, TakesAPlanFromAFile) {
  const TemporaryFolder files;
  const auto path = files.write("gateway.plan",
                                "# all at once\nat 0: empty fast  # one\n\n"
                                "at 0: fail ABORTED\r\n");
  PlayingSim sim({"--fault-plan", path, "--fault", "at 0: empty slow"});
  sim.process().waitLine("fault 0.000 empty fast");
  sim.process().waitLine("fault 0.000 fail engine ABORTED");
  sim.process().waitLine("fault 0.000 empty slow");
}

TEST(FaultRun, TakesLiveFaultsFromStandardInput) {
  PlayingSim sim({"--keys", "fast:float:a", "--live-faults"});
  auto& process = sim.process();
  const auto strike = [&](const std::string& fault, const std::string& reported) {
    process.writeLine(fault);
    const auto line = process.waitLine("fault ");
    EXPECT_TRUE(line.ends_with(reported)) << line;
  };
  strike("fail engine ABORTED", " fail engine ABORTED");
  EXPECT_EQ(setParams(sim.engineTarget()).code, StatusCode::ABORTED);
  process.writeLine("");
  process.writeLine("explode fast");
  process.waitError("gatewayctl sim: \"explode\" is not a fault");
  process.writeLine("normal engine");
  process.waitLine("fault ");  // "fail" is over
  process.waitLine("fault ");
  EXPECT_EQ(setParams(sim.engineTarget()).code, StatusCode::OK);
  // Live faults can act on connections, though no plan needs a relay.
  RawCall call(sim.metersTarget(), fastPath);
  ASSERT_TRUE(call.read());
  strike("reset meters", " reset meters");
  EXPECT_EQ(replyTo(call).code, StatusCode::UNAVAILABLE);
  process.closeInput();
  EXPECT_EQ(process.waitExit(), 0);
}

// The end of the calls can't reach frozen clients, and the simulator does not wait for them.
TEST(FaultRun, EndsDespiteFrozenClients) {
  auto sim = simWith({"at 0.3: freeze"});
  RawCall call(sim.metersTarget(), fastPath);
  ASSERT_TRUE(call.read());
  sim.process().waitLine("fault 0.300 freeze engine");
  sim.process().signal(SIGTERM);
  EXPECT_EQ(sim.process().waitExit(), 130);
  EXPECT_EQ(replyTo(call).code, StatusCode::UNAVAILABLE);
}

// ---- Half a message -------------------------------------------------------------------------

// An HTTP/2 frame.
std::string frame(char type, char stream, const std::string& payload) {
  const auto size = payload.size();
  std::string head{static_cast<char>(size >> 16),
                   static_cast<char>(size >> 8),
                   static_cast<char>(size),
                   type,
                   0,
                   0,
                   0,
                   0,
                   stream};
  return head + payload;
}

class EachChunk : public testing::TestWithParam<std::size_t> {};

INSTANTIATE_TEST_SUITE_P(, EachChunk, testing::Values(1, 2, 7, 100, 100000));

TEST_P(EachChunk, CutsTheMarkedMessageAndDropsTheRestOfItsStream) {
  constexpr char data = 0;
  constexpr char headers = 1;
  const auto marked = "begin " + std::string(sim::HalfMessage::mark) + std::string(70000, 'x');
  const auto half = marked.substr(0, marked.size() / 2);
  const auto bytes = frame(data, 1, "one") + frame(data, 3, "other") + frame(data, 1, marked) +
                     frame(data, 1, "lost") + frame(data, 3, "other") + frame(headers, 1, "end");
  sim::HalfMessage cutter;
  std::string passed;
  for (std::size_t i = 0; i < bytes.size(); i += GetParam()) {
    passed += cutter.pass(bytes.substr(i, GetParam()));
  }
  EXPECT_TRUE(passed == frame(data, 1, "one") + frame(data, 3, "other") + frame(data, 1, half) +
                            frame(data, 3, "other") + frame(headers, 1, "end"));
}

}  // namespace
