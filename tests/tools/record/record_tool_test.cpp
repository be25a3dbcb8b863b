// gatewayctl record: the built program records a simulator, and the test says what is sent.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <string>
#include <vector>

#include "tests/support/FileText.h"
#include "tests/support/FolderChanges.h"
#include "tests/support/SimProcess.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/tools/recording/Recordings.h"

namespace {

using recording::Kept;
using recording::Kind;
using recording::readBack;
using recording::Stream;

// Message bytes that no parser would take are kept, too.
const std::string oddBytes("\xff\x00\x0a", 3);

class Record : public testing::Test {
 protected:
  std::string file() const { return folder_.path("file"); }

  std::vector<std::string> command(const std::vector<std::string>& options = {}) const {
    std::vector<std::string> arguments{"record", servers.metersTarget(), "-o", file()};
    arguments.insert(arguments.end(), options.begin(), options.end());
    return arguments;
  }

  void waitForStreams(int attempt = 1) {
    for (const char* stream : {"fast", "slow"}) {
      servers.waitEvent("open " + std::string(stream) + " " + std::to_string(attempt) + " ");
    }
  }

  // Waits until the file holds a record of this kind. A block is written after a second at most.
  void waitForRecord(Kind kind, std::uint32_t number) const {
    const auto hasCome = [&] {
      const std::vector<Kept> records = recorded();
      return std::any_of(records.begin(), records.end(), [&](const Kept& record) {
        return record.kind == kind && record.number == number;
      });
    };
    ASSERT_TRUE(waitForFiles(folder_.path(""), hasCome)) << "the record does not come";
  }

  std::vector<Kept> recorded() const { return readBack(textOf(file())).records; }

  static std::vector<std::string> contentsOf(const std::vector<Kept>& records, Stream stream) {
    std::vector<std::string> contents;
    for (const auto& record : records) {
      if (record.kind == Kind::Message && record.stream == stream) {
        contents.push_back(record.content);
      }
    }
    return contents;
  }

  SimProcess servers;

 private:
  TemporaryFolder folder_;
};

TEST_F(Record, KeepsTheBytesOfBothStreams) {
  ToolProcess tool(command());
  waitForStreams();
  servers.command("send fast " + toHex(oddBytes));
  servers.command("send slow - 2");
  servers.command("send fast " + toHex(std::string(100000, 'x')) + " 3");
  servers.command("end fast OK");
  servers.command("end slow NOT_FOUND");
  tool.waitError("the fast stream ended: OK; it is opened again in 5 seconds");
  tool.waitError("the slow stream ended: NOT_FOUND ended by the simulator;");
  tool.signal(SIGINT);
  EXPECT_EQ(tool.waitExit(), 130);
  const auto result = readBack(textOf(file()));
  EXPECT_EQ(result.error, "") << "Ctrl-C leaves a complete file";
  const std::string large(100000, 'x');
  EXPECT_EQ(contentsOf(result.records, Stream::Fast),
            (std::vector<std::string>{oddBytes, large, large, large}));
  EXPECT_EQ(contentsOf(result.records, Stream::Slow), (std::vector<std::string>{"", ""}));
  EXPECT_TRUE(tool.hasError("gatewayctl record: fast: 4 messages, 300003 bytes\n"));
  EXPECT_TRUE(tool.hasError("gatewayctl record: slow: 2 messages, 0 bytes\n"));
}

TEST_F(Record, KeepsTheEventsOfAStreamInOrder) {
  ToolProcess tool(command());
  waitForStreams();
  servers.command("send slow -");
  servers.command("end slow NOT_FOUND");
  tool.waitError("the slow stream ended");
  tool.signal(SIGTERM);
  EXPECT_EQ(tool.waitExit(), 130);
  std::vector<Kept> slow;
  for (auto& record : recorded()) {
    // By now, a busy machine may have begun the next attempt.
    if (record.stream == Stream::Slow && record.number == 1) slow.push_back(record);
  }
  ASSERT_EQ(slow.size(), 4u);
  const std::vector<Kind> kinds{Kind::Started, Kind::Opened, Kind::Message, Kind::Ended};
  for (std::size_t i = 0; i < kinds.size(); ++i) {
    EXPECT_EQ(slow[i].kind, kinds[i]);
  }
  EXPECT_EQ(slow[0].content, servers.metersTarget());
  EXPECT_EQ(recording::endIn(slow[3].content).code, 5);
  EXPECT_EQ(recording::endIn(slow[3].content).text, "ended by the simulator");
}

TEST_F(Record, OpensAStreamAgainAfterItHasEnded) {
  ToolProcess tool(command());
  waitForStreams();
  servers.command("end fast UNAVAILABLE");
  servers.waitEvent("open fast 2 ");
  servers.command("send fast " + toHex(oddBytes));
  waitForRecord(Kind::Message, 2);
  tool.signal(SIGINT);
  EXPECT_EQ(tool.waitExit(), 130);
  const auto records = recorded();
  const auto timeOf = [&](Kind kind, std::uint32_t number) -> std::uint64_t {
    for (const auto& record : records) {
      const bool isIt = record.stream == Stream::Fast && record.kind == kind;
      if (isIt && record.number == number) return record.time;
    }
    ADD_FAILURE() << "no record";
    return 0;
  };
  EXPECT_GE(timeOf(Kind::Started, 2), timeOf(Kind::Ended, 1) + 5000000);
}

TEST_F(Record, WritesToStandardOutput) {
  ToolProcess tool(
      {"-c", "exec " GATEWAYCTL_PATH " record " + servers.metersTarget() + " -o - > " + file()},
      "/bin/sh");
  waitForStreams();
  servers.command("send fast " + toHex(oddBytes));
  waitForRecord(Kind::Message, 1);
  EXPECT_EQ(contentsOf(recorded(), Stream::Fast), std::vector<std::string>{oddBytes});
}

TEST_F(Record, ReportsThatNoMessageCame) {
  const std::string target = unusedTarget();
  ToolProcess tool({"record", target, "-o", file(), "--for", "0.2"});
  EXPECT_EQ(tool.waitExit(), 1);
  EXPECT_TRUE(tool.hasError("no message came from " + target +
                            ". Check that a meter server runs there, or record longer with --for"));
  EXPECT_EQ(readBack(textOf(file())).error, "");
}

TEST_F(Record, ReportsAFullDisk) {
  ToolProcess tool({"record", servers.metersTarget(), "-o", "/dev/full"});
  EXPECT_EQ(tool.waitExit(), 1);
  EXPECT_EQ(tool.errors(), "gatewayctl record: can't write /dev/full: No space left on device\n");
}

TEST_F(Record, ReportsAClosedPipe) {
  ToolProcess tool({"-c", "( " GATEWAYCTL_PATH " record " + servers.metersTarget() +
                              " -o -; echo code $? >&2 ) | true"},
                   "/bin/sh");
  EXPECT_EQ(tool.waitExit(), 0);
  EXPECT_EQ(tool.errors(), "gatewayctl record: can't write standard output: Broken pipe\ncode 1\n");
}

TEST_F(Record, ExplainsWrongUse) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases{
      {{"record"}, "TARGET is missing: name a meter server, or use --show"},
      {{"record", "a:1"}, "--output is missing: name the file to write"},
  };
  for (const auto& [arguments, error] : cases) {
    ToolProcess tool(arguments);
    EXPECT_EQ(tool.waitExit(), 2);
    EXPECT_EQ(tool.errors(), "gatewayctl record: " + error +
                                 "\nRun \"gatewayctl record --help\" for its manual.\n");
  }
}

}  // namespace
