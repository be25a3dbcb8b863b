// gatewayctl host, as a person or a script uses it.
#include <gtest/gtest.h>

#include <csignal>
#include <sstream>

#include "meters.pb.h"
#include "tests/support/SimProcess.h"
#include "tests/support/TemporaryFolder.h"

namespace {

class HostTool : public ::testing::Test {
 protected:
  std::string config() const {
    return files.write("gateway.conf", "[Meters]\nTarget=" + servers.metersTarget() +
                                           "\n[MetersFloat]\nMeter=Key=out.level CustomKey=level "
                                           "DefaultValue=-60.5\n"
                                           "[MetersString]\nMeter=Key=state CustomKey=state\n"
                                           "[Engine]\nTarget=" +
                                           servers.engineTarget() +
                                           "\n[EngineFloat]\nParam=Key=out.gain CustomKey=gain\n"
                                           "[EngineInt]\nParam=Key=delay CustomKey=delay\n"
                                           "[EngineUint]\nParam=Key=preset CustomKey=preset\n");
  }

  // A batch with one level, as the simulator's commands take it.
  static std::string level(float value) {
    sonalith::grpc::Meter meter;
    meter.add_values()->set_key("out.level");
    meter.mutable_values(0)->mutable_value()->set_sfloat(value);
    return toHex(meter);
  }

  SimProcess servers;
  TemporaryFolder files;
};

TEST_F(HostTool, ShowsTheSlotsAndStopsCleanlyAtQuit) {
  ToolProcess host({"host", config()});
  host.writeLine("slots");
  EXPECT_EQ(host.waitLine("fast state"), "fast state ");
  EXPECT_EQ(host.waitLine("fast level"), "fast level -60.5");
  EXPECT_EQ(host.waitLine("engine delay"), "engine delay 0");
  EXPECT_EQ(host.waitLine("engine preset"), "engine preset 0");
  EXPECT_EQ(host.waitLine("engine gain"), "engine gain 0");
  host.writeLine("quit");
  EXPECT_EQ(host.waitExit(), 0);
  EXPECT_NE(host.errors().find("Completion queue flush ended"), std::string::npos);
}

TEST_F(HostTool, PrintsASlotWhenItsValueHasChanged) {
  ToolProcess host({"host", config(), "--watch", "--watch-rate", "20"});
  EXPECT_EQ(host.waitLine("fast level"), "fast level -60.5");
  servers.waitEvent("open fast ");
  servers.command("send fast " + level(-12.5f));
  EXPECT_EQ(host.waitLine("fast level"), "fast level -12.5");
  host.writeLine("quit");
  EXPECT_EQ(host.waitExit(), 0);
}

TEST_F(HostTool, SendsWhatIsSetInOneNotification) {
  ToolProcess host({"host", config(), "--set", "gain=-6.5", "--set", "delay=-3"});
  EXPECT_EQ(
      servers.waitEvent("SetParams 1 "),
      "SetParams 1 0a110a086f75742e6761696e1205150000d0c00a140a0564656c6179120b18fdffffffffffff"
      "ffff01 deadline=none metadata=-");
  host.writeLine("set preset 7 gain 1");
  EXPECT_EQ(servers.waitEvent("SetParams 2 "),
            "SetParams 2 0a0c0a06707265736574120220070a110a086f75742e6761696e1205150000803f "
            "deadline=none metadata=-");
  host.writeLine("quit");
  EXPECT_EQ(host.waitExit(), 0);
}

TEST_F(HostTool, ExplainsWhatItCannotDoAndGoesOn) {
  ToolProcess host({"host", config()});
  for (const char* line : {"set gian 1", "set gain loud", "set delay 2147483648", "set preset -1",
                           "set gain", "set", "dance", "slots"}) {
    host.writeLine(line);
  }
  host.waitLine("engine gain");
  host.writeLine("quit");
  EXPECT_EQ(host.waitExit(), 0);
  std::string told;
  std::istringstream errors(host.errors());
  for (std::string line; std::getline(errors, line);) {
    if (line.starts_with("gatewayctl: ")) told += line + "\n";
  }
  EXPECT_EQ(told,
            "gatewayctl: no engine slot \"gian\": there are delay, preset, gain\n"
            "gatewayctl: gain takes a number, not \"loud\"\n"
            "gatewayctl: delay takes an integer of 32 bits, not \"2147483648\"\n"
            "gatewayctl: preset takes an integer from 0 to 4294967295, not \"-1\"\n"
            "gatewayctl: set takes pairs of a name and a value\n"
            "gatewayctl: set takes pairs of a name and a value\n"
            "gatewayctl: no command \"dance\": there are slots, set and quit\n");
}

TEST_F(HostTool, EndsByItselfAndBySignals) {
  EXPECT_EQ(ToolProcess({"host", config(), "--for", "0"}).waitExit(), 0);
  for (const int signal : {SIGINT, SIGTERM}) {
    ToolProcess host({"host", config()});
    host.writeLine("slots");
    host.waitLine("fast level");
    host.signal(signal);
    EXPECT_EQ(host.waitExit(), 130);
    EXPECT_NE(host.errors().find("Completion queue flush ended"), std::string::npos);
  }
}

TEST_F(HostTool, GoesOnWhenNobodyTypes) {
  ToolProcess host({"host", config(), "--watch"});
  host.closeInput();
  EXPECT_EQ(host.waitLine("fast level"), "fast level -60.5");
  host.signal(SIGTERM);
  EXPECT_EQ(host.waitExit(), 130);
}

TEST_F(HostTool, GivesOneForARefusedConfiguration) {
  const std::string path = files.write("bad.conf", "[Meters]\nnonsense\n");
  ToolProcess host({"host", path});
  EXPECT_EQ(host.waitExit(), 1);
  EXPECT_NE(host.errors().find("configManager: problem parsing " + path + " (2)"),
            std::string::npos);
  EXPECT_NE(host.errors().find("gatewayctl: the module refused " + path +
                               "; its own messages above tell why.\n"),
            std::string::npos);
}

TEST_F(HostTool, GivesOneForAModuleThatCannotBeLoaded) {
  ToolProcess host({"host", config(), "--module", files.path("no.so")});
  EXPECT_EQ(host.waitExit(), 1);
  EXPECT_NE(host.errors().find("no.so"), std::string::npos) << host.errors();
}

TEST_F(HostTool, GivesOneForASettingOfAnUnknownSlotAndStopsTheModule) {
  ToolProcess host({"host", config(), "--set", "gian=1"});
  EXPECT_EQ(host.waitExit(), 1);
  EXPECT_NE(host.errors().find("no engine slot \"gian\""), std::string::npos);
  EXPECT_NE(host.errors().find("Completion queue flush ended"), std::string::npos);
}

TEST_F(HostTool, GivesTwoForWrongUse) {
  for (const std::vector<std::string>& arguments :
       std::vector<std::vector<std::string>>{{"host"},
                                             {"host", config(), "--name", std::string(32, 'x')},
                                             {"host", config(), "--watch-rate", "1000"},
                                             {"host", config(), "--set", "gain"},
                                             {"host", config(), "--bogus"}}) {
    ToolProcess host(arguments);
    EXPECT_EQ(host.waitExit(), 2);
    EXPECT_NE(host.errors(), "");
  }
}

}  // namespace
