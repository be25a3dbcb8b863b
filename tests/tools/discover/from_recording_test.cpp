// gatewayctl discover --from: a recording gives what the server itself would have given.
#include <csignal>
#include <nlohmann/json.hpp>

#include "tests/support/FileText.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/tools/discover/DiscoverTest.h"
#include "tests/tools/recording/Recordings.h"

namespace {

using recording::contentOf;
using recording::EndContent;
using recording::fileOf;
using recording::Kept;
using recording::Kind;
using recording::Stream;

class DiscoverFromRecording : public DiscoverTest {
 protected:
  std::string write(const std::vector<Kept>& records) {
    return folder.write("session", fileOf(records));
  }

  static std::string meter(const std::string& key) {
    sonalith::grpc::Meter meter;
    auto& item = *meter.add_values();
    item.set_key(key);
    item.mutable_value()->set_sint(1);
    return meter.SerializeAsString();
  }

  TemporaryFolder folder;
};

// The recorder and discover listen to servers that send the same. These are two servers, because
// the recorder opens its streams again, and commands act on the newest stream.
TEST_F(DiscoverFromRecording, GivesTheSameConfigurationAsTheServer) {
  const std::string file = folder.path("recording");
  ToolProcess recorder({"record", servers.metersTarget(), "-o", file});
  servers.waitEvent("open fast 1 ");
  servers.waitEvent("open slow 1 ");
  const auto commands = sending({Batch().addFloat("out.level", 1).addInt("n", 2)},
                                {Batch().addString("state", "x"), Batch().addUint("u", 1)});
  for (const auto& command : commands) servers.command(command);
  recorder.waitError("the fast stream ended");
  recorder.waitError("the slow stream ended");
  recorder.signal(SIGINT);
  recorder.waitExit();
  // Without a stream that the recorder may have opened again by then.
  auto records = recording::readBack(textOf(file)).records;
  std::erase_if(records, [](const Kept& record) { return record.number > 1; });
  const auto session = write(records);
  SimProcess others;
  ToolProcess live({"discover", others.metersTarget(), "--for", longTime, "--custom-keys"});
  others.waitEvent("open fast 1 ");
  others.waitEvent("open slow 1 ");
  for (const auto& command : commands) others.command(command);
  const auto heard = resultOf(live);
  const auto read = run({"--from", session, "--custom-keys"});
  EXPECT_EQ(read.exitCode, 0);
  EXPECT_EQ(read.errors, heard.errors);
  // The first line says how long it took.
  const auto rest = [](const std::string& text) { return text.substr(text.find('\n')); };
  std::string expected = rest(heard.output);
  const auto place = expected.find(others.metersTarget());
  ASSERT_NE(place, std::string::npos) << expected;
  expected.replace(place, others.metersTarget().size(), servers.metersTarget());
  EXPECT_EQ(rest(read.output), expected);
}

TEST_F(DiscoverFromRecording, TakesTheTargetOfTheCommandLine) {
  const auto file = write({{Kind::Started, Stream::Fast, 1, 0, "there:1"},
                           {Kind::Message, Stream::Fast, 1, 1, meter("a")},
                           {Kind::Message, Stream::Slow, 1, 2500000, meter("b")}});
  const auto result = run({"here:2", "--from", file, "--json"});
  EXPECT_EQ(result.exitCode, 0);
  const auto document = nlohmann::json::parse(result.output);
  EXPECT_EQ(document["target"], "here:2");
  EXPECT_EQ(document["seconds"], 2.5);
  EXPECT_EQ(document["keys"].size(), 2u);
  EXPECT_TRUE(document["problems"].empty()) << document;
}

// Only how a stream was at the end counts, as for a listener that comes then.
TEST_F(DiscoverFromRecording, ReportsOnlyEndsThatLasted) {
  const auto file = write({{Kind::Started, Stream::Fast, 1, 0, "there:1"},
                           {Kind::Message, Stream::Fast, 1, 1, meter("a")},
                           {Kind::Ended, Stream::Fast, 1, 2, contentOf(EndContent{14, "gone"})},
                           {Kind::Started, Stream::Fast, 2, 3, "there:1"},
                           {Kind::Message, Stream::Fast, 2, 4, meter("a")},
                           {Kind::Message, Stream::Slow, 1, 5, meter("b")},
                           {Kind::Ended, Stream::Slow, 1, 6, contentOf(EndContent{0, ""})}});
  const auto result = run({"--from", file});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.errors, "gatewayctl discover: warning: " + remarkOfEnd("slow", 1) + "\n");
}

TEST_F(DiscoverFromRecording, WarnsOfMessagesThatTheRecorderLost) {
  const auto lost = [](Stream stream, std::uint64_t messages) {
    return Kept{Kind::Lost, stream, 1, 2, contentOf(recording::LostContent{messages, 1})};
  };
  const auto file = write({{Kind::Message, Stream::Fast, 1, 1, meter("a")},
                           {Kind::Message, Stream::Slow, 1, 1, meter("b")},
                           lost(Stream::Fast, 2),
                           lost(Stream::Slow, 3),
                           lost(Stream::Engine, 4)});
  const auto result = run({"there:1", "--from", file});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.errors, "gatewayctl discover: warning: " + file +
                               ": 5 messages are missing, which the recorder lost\n");
}

// The recording does not say whether there was a connection.
TEST_F(DiscoverFromRecording, SaysThatNothingCameOnSilentStreams) {
  const auto file = write({{Kind::Started, Stream::Fast, 1, 0, "there:1"},
                           {Kind::Started, Stream::Slow, 1, 0, "there:1"}});
  const auto result = run({"--from", file});
  EXPECT_EQ(result.exitCode, 1);
  for (const std::string rate : {"fast", "slow"}) {
    EXPECT_NE(result.errors.find("nothing came on the " + rate + " stream within 0 seconds"),
              std::string::npos)
        << result.errors;
  }
}

TEST_F(DiscoverFromRecording, ReportsDamage) {
  const std::string whole = fileOf({{Kind::Started, Stream::Fast, 1, 0, "there:1"},
                                    {Kind::Message, Stream::Fast, 1, 1, meter("a")},
                                    {Kind::Message, Stream::Slow, 1, 5, meter("b")}});
  const auto cut = run({"--from", folder.write("cut", whole.substr(0, whole.size() - 1))});
  EXPECT_NE(cut.errors.find("cut: at byte " + std::to_string(whole.size() - 1) +
                            ": the recording ends here"),
            std::string::npos)
      << cut.errors;
  const auto foreign = run({"--from", folder.write("foreign", "text")});
  EXPECT_EQ(foreign.exitCode, 1);
  EXPECT_EQ(foreign.errors, "gatewayctl discover: " + folder.path("foreign") +
                                ": at byte 0: this is not a recording, which begins with GWRECORD."
                                " Give a file that gatewayctl record has written\n");
  const auto empty = run({"--from", write({})});
  EXPECT_EQ(empty.exitCode, 1);
  EXPECT_EQ(empty.errors, "gatewayctl discover: in " + folder.path("session") +
                              ", a configuration can't hold the target \"\": it is empty. Use one "
                              "such as 127.0.0.1:50005\n");
}

}  // namespace
