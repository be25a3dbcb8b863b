// A recording comes out of the simulator as it went in: the same bytes in the same order, the same
// ends, and never earlier than they were recorded.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/support/FileText.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/tools/recording/Recordings.h"
#include "tests/tools/sim/SimTest.h"

namespace {

using recording::contentOf;
using recording::fileOf;
using recording::Kept;
using recording::Kind;
using recording::Stream;

constexpr std::uint64_t milliseconds = 1000;

Kept message(std::uint64_t time, std::string content, Stream stream = Stream::Fast) {
  return {Kind::Message, stream, 1, time, std::move(content)};
}

Kept started(Stream stream, std::uint64_t time = 0, std::uint32_t number = 1) {
  return {Kind::Started, stream, number, time, "desk:50005"};
}

Kept ended(Stream stream, std::uint64_t time, std::int32_t code, const std::string& text) {
  return {Kind::Ended, stream, 1, time, contentOf(recording::EndContent{code, text})};
}

// So that everybody has time to join: a second of the recording lasts 50 seconds.
const std::vector<std::string> slowly{"--speed", "0.02"};

class Replay : public testing::Test {
 protected:
  std::string write(const std::vector<Kept>& records) {
    return folder.write("session", fileOf(records));
  }

  static std::vector<std::string> replaying(const std::string& file,
                                            const std::vector<std::string>& options = {}) {
    std::vector<std::string> arguments{"--replay", file};
    arguments.insert(arguments.end(), options.begin(), options.end());
    return arguments;
  }

  TemporaryFolder folder;
};

std::vector<std::string> contentsOf(const std::vector<Kept>& records, Stream stream) {
  std::vector<std::string> contents;
  for (const auto& record : records) {
    if (record.kind == Kind::Message && record.stream == stream) contents.push_back(record.content);
  }
  return contents;
}

// Bytes that no parser takes, empty messages, large ones, and bursts in both streams.
std::vector<Kept> oddSession() {
  std::vector<Kept> records{started(Stream::Fast), started(Stream::Slow)};
  for (std::uint64_t i = 0; i < 300; ++i) {
    const std::uint64_t time = 10 + i / 3 * milliseconds;
    const auto stream = i % 7 == 0 ? Stream::Slow : Stream::Fast;
    records.push_back(message(time, i % 5 == 0 ? "" : "\xff" + std::to_string(i), stream));
  }
  records.push_back(message(110 * milliseconds, std::string(5 << 20, 'x')));
  records.push_back(ended(Stream::Fast, 120 * milliseconds, 5, "no such meter"));
  records.push_back(ended(Stream::Slow, 120 * milliseconds, 0, ""));
  return records;
}

TEST_F(Replay, RecordedAgainIsEqualInBytesAndOrder) {
  const auto session = oddSession();
  const std::string copy = folder.path("copy");
  PlayingSim sim(replaying(write(session), slowly));
  ToolProcess recorder({"record", sim.metersTarget(), "-o", copy});
  recorder.waitError("the fast stream ended: NOT_FOUND no such meter;");
  recorder.waitError("the slow stream ended: OK;");
  recorder.signal(SIGINT);
  recorder.waitExit();
  const auto again = recording::readBack(textOf(copy));
  EXPECT_EQ(again.error, "");
  for (const auto stream : {Stream::Fast, Stream::Slow}) {
    EXPECT_EQ(contentsOf(again.records, stream), contentsOf(session, stream));
  }
}

TEST_F(Replay, GivesEveryClientTheSameMessages) {
  PlayingSim sim(replaying(write(oddSession()), slowly));
  const auto expected = contentsOf(oddSession(), Stream::Fast);
  RawCall first(sim.metersTarget(), fastPath);
  RawCall second(sim.metersTarget(), fastPath);
  EXPECT_EQ(first.readAll(), expected);
  EXPECT_EQ(second.readAll(), expected);
  EXPECT_EQ(first.finish(), grpc::StatusCode::NOT_FOUND);
}

// The gap between two messages is at least the recorded one.
TEST_F(Replay, KeepsTheRecordedTimes) {
  const auto gapOf = [&](const std::vector<std::string>& options) {
    PlayingSim sim(
        replaying(write({started(Stream::Fast), message(10, "a"), message(600 * milliseconds, "b"),
                         ended(Stream::Fast, 600 * milliseconds, 0, "")}),
                  options));
    const auto begin = std::chrono::steady_clock::now();
    RawCall call(sim.metersTarget(), fastPath);
    EXPECT_EQ(call.readAll(), (std::vector<std::string>{"a", "b"}));
    return std::chrono::steady_clock::now() - begin;
  };
  EXPECT_GE(gapOf({}), std::chrono::microseconds(599990));
  EXPECT_GE(gapOf({"--speed", "0.5"}), std::chrono::microseconds(1199980));
}

// An hour's recording, which no test waits for.
TEST_F(Replay, IsAsFastAsAskedFor) {
  constexpr std::uint64_t hour = 3600ull * 1000 * milliseconds;
  PlayingSim sim(replaying(write({message(hour, "late"), ended(Stream::Fast, hour, 0, "")}),
                           {"--from", "3599.9", "--speed", "1000"}));
  RawCall call(sim.metersTarget(), fastPath);
  EXPECT_EQ(call.readAll(), std::vector<std::string>{"late"});
  EXPECT_EQ(sim.process().waitLine("replay "), "replay begun");
  EXPECT_EQ(sim.process().waitLine("replay "), "replay over");
}

TEST_F(Replay, SendsOnlyThePartThatIsAskedFor) {
  std::vector<Kept> records;
  for (std::uint64_t i = 0; i < 10; ++i) {
    records.push_back(message(i * 100 * milliseconds, std::to_string(i)));
  }
  records.push_back(ended(Stream::Fast, 900 * milliseconds, 0, ""));
  PlayingSim sim(replaying(write(records), {"--from", "0.2", "--to", "0.4", "--loop"}));
  RawCall call(sim.metersTarget(), fastPath);
  for (const char* expected : {"2", "3", "4", "2", "3", "4", "2"}) EXPECT_EQ(call.read(), expected);
}

// The first stream starts the clock, and the other one has not missed anything yet.
TEST_F(Replay, GivesAStreamThatJoinsSoonWhatItHasMissed) {
  PlayingSim sim(replaying(write({started(Stream::Fast), started(Stream::Slow), message(0, "a"),
                                  message(0, "b", Stream::Slow), message(1, "c", Stream::Slow),
                                  message(999 * milliseconds, "never waited for")}),
                           slowly));
  RawCall fast(sim.metersTarget(), fastPath);
  EXPECT_EQ(fast.read(), "a");
  RawCall slow(sim.metersTarget(), slowPath);
  EXPECT_EQ(slow.read(), "b");
  EXPECT_EQ(slow.read(), "c");
}

TEST_F(Replay, GivesAStreamThatJoinsLateOnlyWhatFollows) {
  PlayingSim sim(
      replaying(write({started(Stream::Fast), message(0, "a"), message(1100 * milliseconds, "b"),
                       message(1200 * milliseconds, "end of the join period"),
                       message(8000 * milliseconds, "c")})));
  RawCall first(sim.metersTarget(), fastPath);
  for (const char* expected : {"a", "b", "end of the join period"}) {
    EXPECT_EQ(first.read(), expected);
  }
  RawCall late(sim.metersTarget(), fastPath);
  EXPECT_EQ(late.read(), "c");
}

// Even if the recorded stream was silent in between.
TEST_F(Replay, GivesAStreamThatJoinsAfterTheEndNothing) {
  PlayingSim sim(replaying(write({started(Stream::Fast), message(0, "a"),
                                  message(1001 * milliseconds, "b", Stream::Slow)}),
                           {"--live-faults"}));
  RawCall first(sim.metersTarget(), fastPath);
  EXPECT_EQ(first.read(), "a");
  sim.process().waitLine("replay over");
  RawCall late(sim.metersTarget(), fastPath);
  sim.process().waitError("fast 2 open from ");
  sim.process().writeLine("end fast ABORTED");
  EXPECT_TRUE(late.readAll().empty());
}

// A gateway opens a stream again five seconds after its end, and so did the recorder.
TEST_F(Replay, BeginsAgainWithTheStreamThatWasOpenedAgain) {
  PlayingSim sim(
      replaying(write({started(Stream::Fast), message(0, "a"), ended(Stream::Fast, 1, 14, "gone"),
                       started(Stream::Fast, milliseconds, 2), message(milliseconds, "b"),
                       message(10000 * milliseconds, "never waited for")}),
                slowly));
  RawCall first(sim.metersTarget(), fastPath);
  EXPECT_EQ(first.readAll(), std::vector<std::string>{"a"});
  EXPECT_EQ(first.finish(), grpc::StatusCode::UNAVAILABLE);
  RawCall second(sim.metersTarget(), fastPath);
  EXPECT_EQ(second.read(), "b");
}

TEST_F(Replay, TakesFaultsOnTop) {
  PlayingSim sim(replaying(write({started(Stream::Fast), message(0, "a"),
                                  message(100000 * milliseconds, "never waited for")}),
                           {"--live-faults"}));
  RawCall call(sim.metersTarget(), fastPath);
  EXPECT_EQ(call.read(), "a");
  sim.process().writeLine("garbage fast");
  EXPECT_EQ(call.read(), "\xff\xff\xff\xff");
  sim.process().writeLine("end fast ABORTED");
  EXPECT_EQ(call.read(), std::nullopt);
  EXPECT_EQ(call.finish(), grpc::StatusCode::ABORTED);
}

TEST_F(Replay, AStallKeepsRecordedMessagesBack) {
  std::vector<Kept> records{started(Stream::Fast), message(0, "first")};
  for (std::uint64_t i = 1; i < 5; ++i) {
    records.push_back(message(i * 100 * milliseconds, "stalled"));
  }
  records.push_back(ended(Stream::Fast, 500 * milliseconds, 0, ""));
  PlayingSim sim(replaying(write(records), {"--fault", "at 0: stall fast"}));
  sim.process().waitLine("fault 0.000 stall");
  RawCall call(sim.metersTarget(), fastPath);
  EXPECT_TRUE(call.readAll().empty());
}

TEST_F(Replay, SaysInJsonWhenItBeginsAndEnds) {
  ToolProcess process({"sim", "--meters", SimProcess::anyPort, "--engine", "", "--json", "--replay",
                       write({message(0, "a"), message(1, "b")})});
  const auto listening = nlohmann::json::parse(process.waitLine("{\"event\":\"listening\""));
  RawCall call(listening["address"].get<std::string>(), fastPath);
  EXPECT_EQ(process.waitLine("{\"event\":\"replay"), "{\"event\":\"replay_begun\"}");
  EXPECT_EQ(process.waitLine("{\"event\":\"replay"), "{\"event\":\"replay_over\"}");
}

TEST_F(Replay, ReplaysWhatIsLeftOfACutRecording) {
  const std::string file = fileOf({message(0, "a"), message(1, "b")});
  PlayingSim sim(replaying(folder.write("cut", file.substr(0, file.size() - 1))));
  sim.process().waitError("cut: at byte " + std::to_string(file.size() - 1) +
                          ": the recording ends here without its last record");
  RawCall call(sim.metersTarget(), fastPath);
  sim.process().waitLine("replay over");
}

TEST_F(Replay, RefusesDamagedFilesAndEmptyRangesBeforeItListens) {
  const auto errorOf = [&](const std::vector<std::string>& options) {
    std::vector<std::string> arguments{"sim", "--meters", SimProcess::anyPort, "--engine", ""};
    arguments.insert(arguments.end(), options.begin(), options.end());
    ToolProcess process(arguments);
    EXPECT_EQ(process.waitExit(), 1);
    EXPECT_TRUE(process.lines().empty());
    return process.errors();
  };
  const std::string text = folder.write("text", "[Meters]");
  EXPECT_EQ(errorOf(replaying(text)),
            "gatewayctl sim: " + text +
                ": at byte 0: this is not a recording, which begins with GWRECORD. Give a file "
                "that gatewayctl record has written\n");
  const std::string file = write({message(0, "a"), message(2500 * milliseconds, "b")});
  EXPECT_EQ(errorOf(replaying(file, {"--from", "3"})),
            "gatewayctl sim: " + file +
                " has no messages from 3 to 2.5 seconds: it is 2.500 seconds long. Choose another "
                "--from and --to, or another recording\n");
  const std::string endless = write({message(0, "a"), message(~std::uint64_t{0}, "b")});
  EXPECT_EQ(errorOf(replaying(endless)),
            "gatewayctl sim: " + endless +
                " would take more than 1000000000 seconds to replay. Choose another --from, --to "
                "or --speed, or another recording\n");
  EXPECT_EQ(errorOf(replaying("/nowhere/file")),
            "gatewayctl sim: can't read /nowhere/file: No such file or directory\n");
  for (const std::string other : {"-", "/dev/null"}) {
    EXPECT_EQ(errorOf(replaying(other)),
              "gatewayctl sim: can't replay " + other +
                  ": it is not a regular file, and a replay reads it twice\n");
  }
}

}  // namespace
