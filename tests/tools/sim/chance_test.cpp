// Faults by chance, through gRPC: which messages and calls they strike. The seed decides that, so
// every count here is the same in each run, however busy the machine is.
#include <gtest/gtest.h>
#include <netinet/tcp.h>

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <chrono>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "tests/support/TemporaryFolder.h"
#include "tests/tools/recording/Recordings.h"
#include "tests/tools/sim/SimTest.h"
#include "tools/sim/Chance.h"

namespace {

using boost::asio::ip::tcp;
using grpc::StatusCode;
using recording::Kept;
using recording::Kind;
using recording::Stream;

constexpr int manyCalls = 200;
constexpr int manyMessages = 1000;

// ---- Calls --------------------------------------------------------------------------------------

// The replies to successive calls, while this fault lasts.
std::vector<Reply> repliesUnder(const std::string& fault, const std::string& seed = "1") {
  PlayingSim sim({"--seed", seed, "--fault", "at 0: " + fault});
  sim.process().waitLine("fault 0.000 ");
  std::vector<Reply> replies;
  for (int i = 0; i < manyCalls; ++i) replies.push_back(setParams(sim.engineTarget()));
  return replies;
}

std::ptrdiff_t count(const std::vector<Reply>& replies, const Reply& wanted) {
  return std::count(replies.begin(), replies.end(), wanted);
}

TEST(ChanceOfCalls, FailsItsShare) {
  const auto replies = repliesUnder("fail engine ABORTED with 10%");
  const auto failed = count(replies, {StatusCode::ABORTED, {}});
  EXPECT_GT(failed, manyCalls * 0.05);
  EXPECT_LT(failed, manyCalls * 0.15);
  EXPECT_EQ(failed + count(replies, {StatusCode::OK, {""}}), manyCalls);
}

TEST(ChanceOfCalls, StrikesTheSameCallsWithTheSameSeed) {
  const auto replies = repliesUnder("bad-reply engine with 50%");
  EXPECT_EQ(replies, repliesUnder("bad-reply engine with 50%"));
  EXPECT_NE(replies, repliesUnder("bad-reply engine with 50%", "2"));
}

// The same seed fails calls and leaves calls unanswered by the same numbers.
TEST(ChanceOfCalls, LeavesItsShareUnanswered) {
  const auto failures = repliesUnder("fail engine ABORTED with 10%");
  const auto firstFailed =
      std::find(failures.begin(), failures.end(), Reply{StatusCode::ABORTED, {}});
  ASSERT_NE(firstFailed, failures.begin());
  PlayingSim sim({"--seed", "1", "--fault", "at 0: no-reply engine with 10%"});
  sim.process().waitLine("fault 0.000 no-reply engine with 10%");
  for (auto before = failures.begin(); before != firstFailed; ++before) {
    EXPECT_EQ(setParams(sim.engineTarget()).code, StatusCode::OK);
  }
  RawCall call(sim.engineTarget(), setParamsPath, "", [](grpc::ClientContext& context) {
    context.set_deadline(std::chrono::system_clock::now() + std::chrono::milliseconds(300));
  });
  EXPECT_EQ(replyTo(call).code, StatusCode::DEADLINE_EXCEEDED);
}

// ---- Messages -----------------------------------------------------------------------------------

// A recording whose messages are numbered from 1.
std::string numberedMessages(const TemporaryFolder& folder) {
  std::vector<Kept> records{{Kind::Started, Stream::Fast, 1, 0, "desk:50005"}};
  for (int i = 1; i <= manyMessages; ++i) {
    records.push_back({Kind::Message, Stream::Fast, 1, 0, std::to_string(i)});
  }
  records.push_back(
      {Kind::Ended, Stream::Fast, 1, 1, contentOf(recording::EndContent{14, "the end"})});
  return folder.write("session", fileOf(records));
}

// The numbers of the messages that arrive on a fast stream, while this fault lasts.
std::vector<int> arrivingUnder(const std::string& fault, const std::string& seed = "1") {
  const TemporaryFolder folder;
  PlayingSim sim(
      {"--replay", numberedMessages(folder), "--seed", seed, "--fault", "at 0: " + fault});
  sim.process().waitLine("fault 0.000 ");
  RawCall call(sim.metersTarget(), fastPath);
  std::vector<int> numbers;
  for (const auto& message : call.readAll()) numbers.push_back(std::stoi(message));
  EXPECT_EQ(call.finish(), StatusCode::UNAVAILABLE);
  return numbers;
}

// The lengths of the gaps in the numbers, between the first message and the last that arrived.
std::vector<int> gapsIn(const std::vector<int>& numbers) {
  std::vector<int> gaps;
  for (std::size_t i = 1; i < numbers.size(); ++i) {
    const int missing = numbers[i] - numbers[i - 1] - 1;
    if (missing > 0) gaps.push_back(missing);
  }
  return gaps;
}

TEST(ChanceOfMessages, LosesItsShare) {
  const auto arrived = arrivingUnder("loss fast with 10%");
  EXPECT_GT(arrived.size(), manyMessages * 0.87);
  EXPECT_LT(arrived.size(), manyMessages * 0.93);
}

TEST(ChanceOfMessages, LosesTheSameOnesWithTheSameSeed) {
  const auto arrived = arrivingUnder("loss fast 5..20 with 2%");
  EXPECT_EQ(arrived, arrivingUnder("loss fast 5..20 with 2%"));
  EXPECT_NE(arrived, arrivingUnder("loss fast 5..20 with 2%", "2"));
}

TEST(ChanceOfMessages, LosesThemInBursts) {
  const auto gaps = gapsIn(arrivingUnder("loss fast 5..8 with 2%"));
  EXPECT_GT(gaps.size(), 5u);
  // Two bursts may meet.
  for (const int gap : gaps) EXPECT_GE(gap, 5);
  const std::set<int> lengths(gaps.begin(), gaps.end());
  for (const int length : {5, 6, 7, 8}) EXPECT_TRUE(lengths.contains(length)) << length;
}

TEST(ChanceOfMessages, LosesAllWithoutAChance) {
  EXPECT_TRUE(arrivingUnder("loss fast").empty());
}

TEST(ChanceOfMessages, SparesTheOtherStream) {
  PlayingSim sim({"--keys", "slow:int:a", "--rate-slow", "100", "--fault", "at 0: loss fast"});
  sim.process().waitLine("fault 0.000 loss fast");
  RawCall fast(sim.metersTarget(), fastPath);
  RawCall slow(sim.metersTarget(), slowPath);
  for (int i = 0; i < 10; ++i) ASSERT_TRUE(slow.read());
}

TEST(ChanceOfMessages, LosesNoneOnceItIsOver) {
  PlayingSim sim({"--keys", "fast:int:a", "--rate-fast", "100", "--live-faults", "--fault",
                  "at 0: loss fast 1000000"});
  sim.process().waitLine("fault 0.000 loss fast 1000000");
  RawCall fast(sim.metersTarget(), fastPath);
  sim.process().waitError("fast 1 open from ");
  sim.process().writeLine("normal fast");
  EXPECT_TRUE(fast.read());
}

// ---- Delays -------------------------------------------------------------------------------------

std::vector<int> allNumbers() {
  std::vector<int> numbers;
  for (int i = 1; i <= manyMessages; ++i) numbers.push_back(i);
  return numbers;
}

// The end comes after the last message, too.
TEST(Delay, KeepsTheOrderOfMessages) {
  EXPECT_EQ(arrivingUnder("delay meters 20ms±15ms"), allNumbers());
  EXPECT_EQ(arrivingUnder("delay meters 20ms+-15ms with 10%"), allNumbers());
}

TEST(Delay, HoldsMessagesAndAnswersBack) {
  PlayingSim sim({"--keys", "fast:int:a", "--fault", "at 0: delay 300ms+-50ms"});
  sim.process().waitLine("fault 0.000 delay meters 300ms+-50ms");
  sim.process().waitLine("fault 0.000 delay engine 300ms+-50ms");
  const auto since = [begin = std::chrono::steady_clock::now()] {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  };
  RawCall call(sim.metersTarget(), fastPath);
  ASSERT_TRUE(call.read());
  EXPECT_GE(since(), 0.25);
  const double before = since();
  EXPECT_EQ(setParams(sim.engineTarget()).code, StatusCode::OK);
  EXPECT_GE(since() - before, 0.25);
}

TEST(Delay, DropsWhatIsHeldBackWithItsStream) {
  PlayingSim sim({"--keys", "fast:int:a", "--live-faults", "--fault", "at 0: delay meters 1000"});
  sim.process().waitLine("fault 0.000 delay meters 1000");
  RawCall call(sim.metersTarget(), fastPath);
  sim.process().waitError("fast 1 open from ");
  sim.process().writeLine("end fast ABORTED");
  EXPECT_EQ(replyTo(call), (Reply{StatusCode::ABORTED, {}}));
}

TEST(Delay, HoldsBackNoMoreThanItsBound) {
  std::vector<Kept> records{{Kind::Started, Stream::Fast, 1, 0, "desk:50005"}};
  for (int i = 0; i < 70; ++i) {
    records.push_back({Kind::Message, Stream::Fast, 1, 1, std::string(mebibyte, 'x')});
  }
  const TemporaryFolder folder;
  PlayingSim sim({"--replay", folder.write("session", recording::fileOf(records)), "--fault",
                  "at 0: delay meters 1000"});
  sim.process().waitLine("fault 0.000 delay meters 1000");
  const RawCall call(sim.metersTarget(), fastPath);
  sim.process().waitError("fast 1 loses messages from here on: the delay holds back 64 MiB");
}

TEST(Delay, IsDrawnEvenlyFromItsRange) {
  const sim::Delay delay{.seconds = {0.015, 0.025}, .chance = 0.5};
  std::vector<int> counts(4);
  int prompt = 0;
  for (int i = 0; i < manyMessages; ++i) {
    const auto late = delay.of("fast 1 " + std::to_string(i), 1);
    EXPECT_EQ(late, delay.of("fast 1 " + std::to_string(i), 1));
    const double place = (std::chrono::duration<double>(late).count() - 0.015) / 0.010;
    if (late.count() == 0) {
      ++prompt;
    } else {
      ASSERT_GE(place, 0);
      ASSERT_LT(place, 1.0001);
      ++counts[std::min<std::size_t>(3, static_cast<std::size_t>(4 * place))];
    }
  }
  EXPECT_NEAR(prompt, manyMessages / 2, manyMessages / 20);
  for (const int inQuarter : counts) EXPECT_NEAR(inQuarter, manyMessages / 8, manyMessages / 40);
}

// ---- Connections --------------------------------------------------------------------------------

// What reaches a client that only connects: the server's first frames.
class FirstBytes {
 public:
  explicit FirstBytes(const std::string& target) {
    client_.connect({boost::asio::ip::address_v4::loopback(), portOf(target)});
    std::string bytes(wanted, '\0');
    boost::asio::read(client_, boost::asio::buffer(bytes));
  }

  // A new connection may have this many packets under way, so none has to wait for another.
  static constexpr std::size_t wanted = 10;

  unsigned packets() {
    // What follows glibc's part of the kernel's tcp_info.
    struct {
      tcp_info first;
      std::uint64_t rates[2], acknowledged, received;
      std::uint32_t sentPackets, receivedPackets;
    } info{};
    socklen_t size = sizeof info;
    getsockopt(client_.native_handle(), IPPROTO_TCP, TCP_INFO, &info, &size);
    return info.receivedPackets;
  }

 private:
  boost::asio::io_context loop_;
  tcp::socket client_{loop_};
};

TEST(Slice, SendsSmallPackets) {
  PlayingSim sim({"--live-faults"});
  const unsigned whole = FirstBytes(sim.metersTarget()).packets();
  EXPECT_LT(whole, FirstBytes::wanted);
  sim.process().writeLine("slice meters 1");
  sim.process().waitLine("fault ");
  EXPECT_GE(FirstBytes(sim.metersTarget()).packets(), FirstBytes::wanted);
}

TEST(Slice, LeavesMessagesAndCallsWhole) {
  for (const std::string bytes : {"1", "7", "100"}) {
    EXPECT_EQ(arrivingUnder("slice meters " + bytes), allNumbers());
  }
  PlayingSim sim({"--fault", "at 0: slice engine 1"});
  sim.process().waitLine("fault 0.000 slice engine 1");
  EXPECT_EQ(setParams(sim.engineTarget()), (Reply{StatusCode::OK, {""}}));
}

// However fast the machine is, the last byte can't come before the limit lets it through.
TEST(Limit, HoldsMessagesToItsRate) {
  constexpr double rate = 1e6;
  constexpr double bytes = 1.5e6;
  const TemporaryFolder folder;
  const std::string message(static_cast<std::size_t>(bytes), 'x');
  const auto end = contentOf(recording::EndContent{0, ""});
  const auto file =
      folder.write("session", recording::fileOf({{Kind::Message, Stream::Fast, 1, 0, message},
                                                 {Kind::Ended, Stream::Fast, 1, 1, end}}));
  PlayingSim sim({"--replay", file, "--fault", "at 0: limit meters 1MB"});
  sim.process().waitLine("fault 0.000 limit meters 1MB");
  const auto begin = std::chrono::steady_clock::now();
  RawCall call(sim.metersTarget(), fastPath);
  EXPECT_EQ(call.readAll().size(), 1u);
  const std::chrono::duration<double> time = std::chrono::steady_clock::now() - begin;
  // The last piece, and what a connection may make up for, come without a pause.
  EXPECT_GE(time.count(), bytes / rate - 0.1 - 0.01);
}

// A byte a second, while a message has thousands.
TEST(Limit, IsLiftedWhenItIsOver) {
  PlayingSim sim({"--keys", "fast:int:" + std::string(10000, 'k'), "--live-faults"});
  RawCall call(sim.metersTarget(), fastPath);
  ASSERT_TRUE(call.read());
  for (const std::string fault : {"limit meters 1", "normal meters"}) {
    sim.process().writeLine(fault);
    sim.process().waitLine("fault ");
  }
  for (int i = 0; i < 10; ++i) ASSERT_TRUE(call.read());
}

TEST(Limit, ActsBesideSliceDelayAndLoss) {
  PlayingSim sim({"--keys", "fast:int:a", "--rate-fast", "100", "--fault", "at 0: limit 100kB",
                  "at 0: slice 10", "at 0: delay 10ms", "at 0: loss fast with 10%"});
  sim.process().waitLine("fault 0.000 loss fast with 10%");
  RawCall call(sim.metersTarget(), fastPath);
  for (int i = 0; i < 10; ++i) ASSERT_TRUE(call.read());
  EXPECT_FALSE(sim.process().hasLine("fault 0.000 limit meters 100kB over"));
}

}  // namespace
