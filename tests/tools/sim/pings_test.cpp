// How the simulator treats pings. The connections are made without gRPC, whose client pings too
// rarely.
#include <gtest/gtest.h>

#include <csignal>
#include <string>

#include "tests/support/RawConnection.h"
#include "tests/tools/sim/SimTest.h"

namespace {

using grpc::StatusCode;

// The parts of an HTTP/2 frame that matter here; all empty at the end of the connection.
struct Frame {
  int type = 0;
  int flags = 0;
  std::string payload;
};

constexpr int settingsType = 4;
constexpr int pingType = 6;
constexpr int goAwayType = 7;

Frame nextFrame(RawConnection& connection) {
  const auto header = connection.read(9);
  if (header.size() < 9) return {};
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(header[i]); };
  const auto size = static_cast<std::size_t>(byte(0) << 16 | byte(1) << 8 | byte(2));
  return {byte(3), byte(4), connection.read(size)};
}

// The answer to a ping, or what comes instead: GOAWAY, or the end of the connection.
Frame answerToPing(RawConnection& connection) {
  connection.write(std::string("\0\0\x8\6\0\0\0\0\0", 9) + "12345678");
  for (;;) {
    const auto frame = nextFrame(connection);
    const bool acknowledged = frame.type == pingType && frame.flags == 1;
    const bool ended = frame.type == goAwayType || frame.payload.empty();
    if (acknowledged || (ended && frame.type != settingsType)) return frame;
  }
}

// How many pings, one after the other, the server answers before it ends the connection; at most
// `limit`.
int answeredPings(const std::string& target, int limit) {
  RawConnection connection(target);
  const std::string emptySettings("\0\0\0\4\0\0\0\0\0", 9);
  connection.write("PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n" + emptySettings);
  for (int answered = 0; answered < limit; ++answered) {
    const auto frame = answerToPing(connection);
    if (frame.type == pingType) continue;
    EXPECT_EQ(frame.type, goAwayType);
    EXPECT_TRUE(frame.payload.ends_with("too_many_pings"));
    return answered;
  }
  return limit;
}

constexpr int many = 50;

// Even without a call on the connection.
TEST(Sim, AnswersAnyNumberOfPings) {
  SimProcess sim;
  EXPECT_EQ(answeredPings(sim.metersTarget(), many), many);
}

TEST(StrictPings, DisconnectAClientThatPingsTooOften) {
  PlayingSim sim({"--strict-pings"});
  EXPECT_LT(answeredPings(sim.metersTarget(), many), many);
  EXPECT_LT(answeredPings(sim.engineTarget(), many), many);
}

// The server may answer more pings than it forgives, depending on what it has sent by then.
TEST(StrictPings, ForgiveTheGivenNumberOfEarlyPings) {
  PlayingSim one({"--strict-pings", "1"});
  PlayingSim twenty({"--strict-pings", "20"});
  EXPECT_LT(answeredPings(one.metersTarget(), many), 10);
  const int answered = answeredPings(twenty.metersTarget(), many);
  EXPECT_GE(answered, 20);
  EXPECT_LT(answered, 30);
}

// gRPC takes 0 for no limit, and the help says so.
TEST(StrictPings, AreUnlimitedWithZeroStrikes) {
  PlayingSim sim({"--strict-pings", "0"});
  EXPECT_EQ(answeredPings(sim.metersTarget(), many), many);
}

TEST(StrictPings, ApplyWithCommandsToo) {
  ToolProcess sim({"sim", "--commands", "--meters", SimProcess::anyPort, "--engine", "",
                   "--strict-pings", "1"});
  EXPECT_LT(answeredPings(sim.waitLine("meters ").substr(7), many), many);
}

// For a gRPC client that pings every second, whatever servers accept.
grpc::ChannelArguments pingingEverySecond() {
  grpc::ChannelArguments arguments;
  arguments.SetInt(GRPC_ARG_KEEPALIVE_TIME_MS, 1000);
  arguments.SetInt(GRPC_ARG_KEEPALIVE_PERMIT_WITHOUT_CALLS, 1);
  arguments.SetInt(GRPC_ARG_HTTP2_MAX_PINGS_WITHOUT_DATA, 0);
  return arguments;
}

TEST(StrictPings, EndTheStreamsOfAGrpcClientThatPingsEverySecond) {
  PlayingSim strict({"--strict-pings", "1", "--rate-fast", "0"});
  PlayingSim tolerant({"--rate-fast", "0", "--rate-slow", "0"});
  RawCall kept(connect(tolerant.metersTarget(), pingingEverySecond()), fastPath);
  RawCall ended(connect(strict.metersTarget(), pingingEverySecond()), fastPath);
  EXPECT_EQ(replyTo(ended), (Reply{StatusCode::UNAVAILABLE, {}}));
  tolerant.process().signal(SIGTERM);
  kept.readAll();
  tolerant.process().waitExit();
  EXPECT_NE(tolerant.process().errors().find("fast 1 cancelled"), std::string::npos);
}

}  // namespace
