// gatewayctl record --show: what it prints of recordings that the test writes.
#include <gtest/gtest.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "engine.pb.h"
#include "meters.pb.h"
#include "tests/support/SimProcess.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/tools/recording/Recordings.h"

namespace {

using nlohmann::json;
using recording::contentOf;
using recording::Kept;
using recording::Kind;
using recording::Stream;

std::string meter(float level) {
  sonalith::grpc::Meter meter;
  auto& first = *meter.add_values();
  first.set_key("level");
  first.mutable_value()->set_sfloat(level);
  auto& second = *meter.add_values();
  second.set_key("a \"key\"");
  second.mutable_value()->mutable_sstring()->set_data("text");
  return meter.SerializeAsString();
}

std::string request() {
  sonalith::grpcengine::RequestSetParams request;
  auto& param = *request.add_params();
  param.set_key("gain");
  param.mutable_value()->set_sint(-3);
  return request.SerializeAsString();
}

// Messages after 1, 2 and 4 seconds, one that can't be parsed, a loss, an end and a call.
std::vector<Kept> session() {
  return {
      {Kind::Started, Stream::Fast, 1, 500, "desk:50005"},
      {Kind::Opened, Stream::Fast, 1, 900, ""},
      {Kind::Message, Stream::Fast, 1, 1000000, meter(-1.5f)},
      {Kind::Message, Stream::Fast, 1, 2000000, meter(0.1f)},
      {Kind::Message, Stream::Fast, 1, 4000000, meter(3)},
      {Kind::Message, Stream::Fast, 1, 5000000, "\xff"},
      {Kind::Lost, Stream::Fast, 1, 6000000, contentOf(recording::LostContent{12, 3000})},
      {Kind::Started, Stream::Engine, 1, 7000000, "desk:50006"},
      {Kind::Message, Stream::Engine, 1, 7000000, request()},
      {Kind::Reply, Stream::Engine, 1, 7100000, ""},
      {Kind::Ended, Stream::Fast, 1, 8000000, contentOf(recording::EndContent{14, "gone"})},
  };
}

class Show : public testing::Test {
 protected:
  struct Result {
    int exitCode;
    std::vector<std::string> lines;
    std::string errors;
  };

  Result show(const std::string& bytes, const std::vector<std::string>& options = {}) {
    std::vector<std::string> arguments{"record", "--show", folder.write("file", bytes)};
    arguments.insert(arguments.end(), options.begin(), options.end());
    ToolProcess tool(arguments);
    const int code = tool.waitExit();
    return {code, tool.lines(), tool.errors()};
  }

  TemporaryFolder folder;
};

TEST_F(Show, PrintsASummary) {
  const auto result = show(fileOf(session()));
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.errors, "");
  const std::vector<std::string> expected{
      "\"" + folder.path("file") + "\"",
      "  meters    \"desk:50005\"",
      "  engine    \"desk:50006\"",
      "  begin     2023-11-14 22:13:20 UTC",
      "  length    8.000 s",
      "",
      "STREAM  MESSAGES  PER S    GAP MS  JITTER MS  LONGEST MS  ENDED BY",
      "fast           4   0.50  1333.333    471.405    2000.000  1 x UNAVAILABLE",
      "engine         1   0.12     0.000      0.000       0.000  -",
      "",
      "STREAM  OPENED  VALUES  BYTES  SHORTEST  LONGEST  UNREADABLE  LOST",
      "fast         1       6    " + std::to_string(3 * meter(1).size() + 1) + "         1       " +
          std::to_string(meter(1).size()) + "           1    12",
      "engine       1       1     " + std::to_string(request().size()) + "        " +
          std::to_string(request().size()) + "       " + std::to_string(request().size()) +
          "           0     0",
      "",
      "STREAM  MESSAGES  PER S    GAP MS  JITTER MS  LONGEST MS  TYPE AND KEY",
      "fast           3   0.38  1500.000    500.000    2000.000  float \"level\"",
      "fast           3   0.38  1500.000    500.000    2000.000  string \"a \\\"key\\\"\"",
      "engine         1   0.12     0.000      0.000       0.000  int \"gain\"",
  };
  EXPECT_EQ(result.lines, expected);
}

// Each value without content takes two bytes of the message, but a hundred when it is parsed.
TEST_F(Show, CountsMessagesThatReceiversRefuseAsUnreadable) {
  constexpr std::size_t limit = std::size_t{4} << 20;
  std::string longest;
  while (longest.size() < limit) longest.append("\x0a\x00", 2);
  const std::string longer = longest + std::string("\x0a\x00", 2);
  const std::vector<Kept> records{{Kind::Message, Stream::Fast, 1, 1, longest},
                                  {Kind::Message, Stream::Slow, 1, 1, longer}};
  const auto result = show(fileOf(records));
  EXPECT_EQ(result.exitCode, 0);
  const auto hasLine = [&](const std::string& line) {
    return std::find(result.lines.begin(), result.lines.end(), line) != result.lines.end();
  };
  EXPECT_TRUE(hasLine("fast         0  2097152  4194304   4194304  4194304           0     0"));
  EXPECT_TRUE(hasLine("slow         0        0  4194306   4194306  4194306           1     0"));
}

TEST_F(Show, PrintsJsonLines) {
  const auto result = show(fileOf(session()), {"--json"});
  EXPECT_EQ(result.exitCode, 0);
  ASSERT_EQ(result.lines.size(), session().size() + 2);
  EXPECT_EQ(
      result.lines[0],
      R"({"time":0.0005,"event":"started","stream":"fast","number":1,"target":"desk:50005"})");
  EXPECT_EQ(result.lines[1], R"({"time":0.0009,"event":"opened","stream":"fast","number":1})");
  EXPECT_EQ(json::parse(result.lines[3]),
            json({{"time", 2.0},
                  {"event", "message"},
                  {"stream", "fast"},
                  {"number", 1},
                  {"bytes", meter(1).size()},
                  {"values",
                   {{{"key", "level"}, {"type", "float"}, {"value", 0.1}},
                    {{"key", "a \"key\""}, {"type", "string"}, {"value", "text"}}}}}));
  EXPECT_EQ(result.lines[5],
            R"({"time":5.0,"event":"message","stream":"fast","number":1,"bytes":1,"hex":"ff"})");
  EXPECT_EQ(result.lines[6],
            R"({"time":6.0,"event":"lost","stream":"fast","number":1,"messages":12,"bytes":3000})");
  EXPECT_EQ(json::parse(result.lines[8])["values"][0]["value"], -3);
  EXPECT_EQ(result.lines[10],
            R"({"time":8.0,"event":"ended","stream":"fast","number":1,"status":"UNAVAILABLE",)"
            R"("text":"gone"})");
  EXPECT_EQ(result.lines[11], R"({"time":8.0,"event":"closed"})");
  const auto summary = json::parse(result.lines[12]);
  EXPECT_EQ(summary["complete"], true);
  EXPECT_EQ(summary["streams"][0]["gaps"],
            json({{"mean", 1.333333}, {"jitter", 0.471405}, {"longest", 2.0}}));
  EXPECT_EQ(summary["streams"][0]["ends"], json({{"UNAVAILABLE", 1}}));
  EXPECT_EQ(summary["keys"].size(), 3u);
}

TEST_F(Show, PrintsACutRecordingWithAWarning) {
  const std::string file = fileOf(session());
  const auto result = show(file.substr(0, file.size() - 5));
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.lines[3], "  begin     2023-11-14 22:13:20 UTC");
  EXPECT_EQ(result.lines[4].substr(result.lines[4].size() - 14), " s, incomplete");
  EXPECT_EQ(result.errors.find("gatewayctl record: warning: " + folder.path("file") + ": at byte " +
                               std::to_string(file.size() - 5) + ": the recording ends here"),
            0u)
      << result.errors;
}

// Each second, so that there are several blocks. The last one is damaged.
TEST_F(Show, PrintsWhatComesBeforeDamage) {
  std::string file = fileOf(session());
  file[file.size() - 3] ^= 1;
  const auto result = show(file);
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.lines[6].substr(0, 6), "STREAM");
  EXPECT_NE(result.errors.find("file: at byte "), std::string::npos) << result.errors;
}

TEST_F(Show, RefusesOtherFiles) {
  const auto result = show("something else");
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_TRUE(result.lines.empty());
  EXPECT_EQ(result.errors,
            "gatewayctl record: " + folder.path("file") +
                ": at byte 0: this is not a recording, which begins with GWRECORD. Give a file "
                "that gatewayctl record has written\n");
}

}  // namespace
