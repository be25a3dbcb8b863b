// gatewayctl host --record: what the servers did beside the running module.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "engine.pb.h"
#include "meters.pb.h"
#include "tests/support/FileText.h"
#include "tests/support/SimProcess.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/tools/recording/Recordings.h"

namespace {

using recording::Kept;
using recording::Kind;
using recording::Stream;

class HostRecord : public testing::Test {
 protected:
  std::string config() const {
    return files.write("gateway.conf",
                       "[Meters]\nTarget=" + servers.metersTarget() +
                           "\n[MetersFloat]\nMeter=Key=out.level Type=fast\nMeter=Key=in.level "
                           "Type=slow\n[Engine]\nTarget=" +
                           servers.engineTarget() +
                           "\n[EngineFloat]\nParam=Key=out.gain CustomKey=gain\n");
  }

  std::string file() const { return files.path("session"); }

  static std::vector<Kept> recordsOf(const std::vector<Kept>& records, Stream stream) {
    std::vector<Kept> found;
    for (const auto& record : records) {
      if (record.stream == stream) found.push_back(record);
    }
    return found;
  }

  SimProcess servers;
  TemporaryFolder files;
};

TEST_F(HostRecord, KeepsStreamsAndEngineCalls) {
  ToolProcess host({"host", config(), "--no-page", "--record", file()});
  // The module's streams, and those of the recording.
  for (const char* stream : {"fast 1 ", "fast 2 ", "slow 1 ", "slow 2 "}) {
    servers.waitEvent("open " + std::string(stream));
  }
  // Commands act on the newest stream. Either is the recording's, so both get it. The module can
  // read the message, or it would end its stream itself.
  sonalith::grpc::Meter meter;
  auto& level = *meter.add_values();
  level.set_key("out.level");
  level.mutable_value()->set_sfloat(1);
  for (int i = 0; i < 2; ++i) {
    servers.command("send fast " + toHex(meter));
    servers.command("end fast OK");
  }
  host.waitError("recording: the fast stream ended: OK;");
  host.writeLine("set gain -6.5");
  host.waitLine("notification 1 answered");
  servers.command("engine fail ABORTED");
  host.writeLine("set gain 3");
  host.waitLine("notification 2 failed");
  host.writeLine("quit");
  EXPECT_EQ(host.waitExit(), 0);
  const auto result = recording::readBack(textOf(file()));
  EXPECT_EQ(result.error, "");
  const auto fast = recordsOf(result.records, Stream::Fast);
  ASSERT_GE(fast.size(), 4u);  // the stream may have been opened again
  EXPECT_EQ(fast[0].content, servers.metersTarget());
  EXPECT_EQ(fast[2].content, meter.SerializeAsString());
  const auto engine = recordsOf(result.records, Stream::Engine);
  ASSERT_EQ(engine.size(), 6u);
  const Kind kinds[] = {Kind::Started, Kind::Message, Kind::Ended};
  for (std::size_t i = 0; i < engine.size(); ++i) {
    EXPECT_EQ(engine[i].kind, kinds[i % 3]);
    EXPECT_EQ(engine[i].number, 1 + i / 3);
  }
  EXPECT_EQ(engine[0].content, servers.engineTarget());
  sonalith::grpcengine::RequestSetParams request;
  ASSERT_TRUE(request.ParseFromString(engine[1].content));
  EXPECT_EQ(request.params(0).key(), "out.gain");
  EXPECT_EQ(request.params(0).value().sfloat(), -6.5f);
  EXPECT_EQ(recording::endIn(engine[2].content).code, 0);
  EXPECT_EQ(recording::endIn(engine[5].content).code, 10);
}

TEST_F(HostRecord, EndsWhenTheDiskIsFull) {
  ToolProcess host({"host", config(), "--no-page", "--record", "/dev/full"});
  EXPECT_EQ(host.waitExit(), 1);
  EXPECT_TRUE(host.hasError("can't write /dev/full: No space left on device")) << host.errors();
}

TEST_F(HostRecord, NeedsAFile) {
  ToolProcess host({"host", config(), "--no-page", "--record", "-"});
  EXPECT_EQ(host.waitExit(), 2);
  EXPECT_EQ(host.errors(),
            "gatewayctl host: --record: standard output has the lines of the host, so a recording "
            "needs a file\nRun \"gatewayctl host --help\" for its manual.\n");
}

}  // namespace
