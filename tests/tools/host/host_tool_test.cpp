// gatewayctl host, as a person or a script uses it.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

#include "meters.pb.h"
#include "tests/support/FileText.h"
#include "tests/support/FolderChanges.h"
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

  // A batch with one level, in the form that the simulator's commands take.
  static std::string level(float value) {
    sonalith::grpc::Meter meter;
    meter.add_values()->set_key("out.level");
    meter.mutable_values(0)->mutable_value()->set_sfloat(value);
    return toHex(meter);
  }

  SimProcess servers;
  TemporaryFolder files;
};

TEST_F(HostTool, ListsSlotsWithAgesAndKeysAndStopsAtQuit) {
  ToolProcess host({"host", config(), "--no-page"});
  host.writeLine("set gain -6.5");
  host.waitLine("notification 1");
  host.writeLine("slots");
  EXPECT_EQ(host.waitLine("SET"), "SET     TYPE    NAME    VALUE  AGE        KEY");
  EXPECT_EQ(host.waitLine("fast    string"), "fast    string  state   \"\"     unchanged  state");
  EXPECT_EQ(host.waitLine("fast    float"), "fast    float   level   -60.5  unchanged  out.level");
  EXPECT_EQ(host.waitLine("engine  int"), "engine  int     delay   0      unchanged  delay");
  EXPECT_EQ(host.waitLine("engine  uint"), "engine  uint    preset  0      unchanged  preset");
  EXPECT_EQ(host.waitLine("engine  float").substr(0, 32), "engine  float   gain    -6.5   0");
  host.writeLine("quit");
  EXPECT_EQ(host.waitExit(), 0);
  EXPECT_NE(host.errors().find("Completion queue flush ended"), std::string::npos);
}

TEST_F(HostTool, GetsSlotsByNameFromAllSets) {
  const std::string path =
      files.write("same.conf", "[Meters]\nTarget=" + servers.metersTarget() +
                                   "\n[MetersInt]\nMeter=Key=a CustomKey=same\n"
                                   "Meter=Key=b CustomKey=same Type=slow DefaultValue=2\n"
                                   "Meter=Key=c CustomKey=other\n");
  ToolProcess host({"host", path, "--no-page"});
  host.writeLine("get same");
  EXPECT_EQ(host.waitLine("SET"), "SET   TYPE  NAME  VALUE  AGE        KEY");
  EXPECT_EQ(host.waitLine("fast"), "fast  int   same  0      unchanged  a");
  EXPECT_EQ(host.waitLine("slow"), "slow  int   same  2      unchanged  b");
  host.writeLine("quit");
  EXPECT_EQ(host.waitExit(), 0);
  EXPECT_EQ(host.lines().size(), 3u);
}

TEST_F(HostTool, PrintsASlotWhenItsValueChanges) {
  ToolProcess host({"host", config(), "--no-page", "--watch"});
  EXPECT_EQ(host.waitLine("fast state"), "fast state ");
  EXPECT_EQ(host.waitLine("fast level"), "fast level -60.5");
  EXPECT_EQ(host.waitLine("engine gain"), "engine gain 0");
  servers.waitEvent("open fast ");
  servers.command("send fast " + level(-12.5f));
  EXPECT_EQ(host.waitLine("fast level"), "fast level -12.5");
  host.writeLine("set gain 1");
  EXPECT_EQ(host.waitLine("engine gain"), "engine gain 1");
  host.writeLine("quit");
  EXPECT_EQ(host.waitExit(), 0);
  const auto lines = host.lines();
  const auto isOfSlots = [](const std::string& line) { return !line.starts_with("link "); };
  // All slots, the notification, its outcome, and the changes.
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(), isOfSlots), 5 + 1 + 1 + 2);
}

TEST_F(HostTool, WritesJsonLines) {
  ToolProcess host({"host", config(), "--no-page", "--json", "--watch", "--set", "gain=-6.5"});
  // Without the events whose moment depends on the servers.
  const auto next = [&] {
    for (;;) {
      auto event = nlohmann::json::parse(host.waitLine("{"));
      if (event["event"] != "link" && event["event"] != "delivery") return event;
    }
  };
  EXPECT_EQ(next(), (nlohmann::json{{"event", "started"},
                                    {"module", "gateway"},
                                    {"config", files.path("gateway.conf")},
                                    {"meters_target", servers.metersTarget()},
                                    {"engine_target", servers.engineTarget()},
                                    {"slots", 5}}));
  auto notification = next();
  EXPECT_GT(notification["time"], 1.7e9);
  notification.erase("time");
  EXPECT_EQ(notification, nlohmann::json::parse(R"({"event": "notification", "number": 1,
                                                    "changes": [{"name": "gain",
                                                                 "value": "-6.5"}]})"));
  auto slot = next();
  EXPECT_GE(slot["age"], 0);
  slot.erase("age");
  EXPECT_EQ(slot, nlohmann::json::parse(R"({"event": "slot", "set": "fast", "type": "string",
                                            "name": "state", "key": "state", "value": "",
                                            "changes": 0,
                                            "moved": false})"));
  for (int i = 0; i < 4; ++i) EXPECT_EQ(next()["event"], "slot");
  host.writeLine("get level");
  const auto slots = next();
  EXPECT_EQ(slots["event"], "slots");
  EXPECT_EQ(slots["slots"].size(), 1u);
  EXPECT_EQ(slots["slots"][0]["value"], -60.5);
  host.writeLine("dance");
  EXPECT_EQ(next(), (nlohmann::json{{"event", "error"},
                                    {"text",
                                     "no command \"dance\": there are slots, get, set, "
                                     "help, quit"}}));
  host.writeLine("quit");
  EXPECT_EQ(host.waitExit(), 0);
}

// ---- Connections ------------------------------------------------------------------------------

TEST_F(HostTool, PrintsALinkWhenItsStateChanges) {
  ToolProcess host({"host", config(), "--no-page", "--watch"});
  const std::string meters = servers.metersTarget();
  EXPECT_EQ(
      host.waitLine("link engine:"),
      "link engine: not connected to " + servers.engineTarget() + " until a parameter is sent");
  servers.waitEvent("open fast ");
  servers.waitEvent("open slow ");
  servers.command("send fast " + level(-12.5f));
  EXPECT_TRUE(host.waitLine("link fast: receiving").ends_with("connected for 0 s"));
  EXPECT_EQ(host.waitLine("link slow: connected to " + meters + ", nothing"),
            "link slow: connected to " + meters + ", nothing received for 5 s");
  servers.command("end slow UNAVAILABLE");
  EXPECT_EQ(host.waitLine("link slow: stream"),
            "link slow: stream over (ended by the server, or an unreadable message), next attempt "
            "in 4 s");
  servers.kill();
  host.waitLine("link fast: no server at " + meters + ", trying again");
}

TEST_F(HostTool, ReportsLinksAndOutcomesAsJson) {
  ToolProcess host({"host", config(), "--no-page", "--json"});
  servers.waitEvent("open fast ");
  servers.command("send fast " + level(-12.5f));
  auto link = nlohmann::json::object();
  while (link.value("state", "") != "receiving") {
    link = nlohmann::json::parse(host.waitLine("{\"attempts\""));
  }
  EXPECT_EQ(link["event"], "link");
  EXPECT_EQ(link["link"], "fast");
  EXPECT_EQ(link["connected"], true);
  EXPECT_EQ(link["messages"], 1);
  servers.command("engine fail INTERNAL");
  host.writeLine("set gain 1");
  EXPECT_EQ(nlohmann::json::parse(host.waitLine("{\"event\":\"delivery\"")),
            (nlohmann::json{{"event", "delivery"},
                            {"number", 1},
                            {"state", "failed"},
                            {"reason", "INTERNAL: ended by the simulator"}}));
}

TEST_F(HostTool, CallsLinksUnknownThatGrpcKnowsNothingOf) {
  ToolProcess host({"host", config(), "--no-page", "--watch", "--module", PROBE_PATH});
  EXPECT_EQ(host.waitLine("link fast:"),
            "link fast: unknown: gRPC has no accounts of " + servers.metersTarget());
  EXPECT_EQ(host.waitLine("link engine:"),
            "link engine: unknown: gRPC has no accounts of " + servers.engineTarget());
}

TEST_F(HostTool, KeepsAReadyFileWhileEachStreamReceives) {
  const std::string file = files.write("ready", "left by an earlier run");
  const auto exists = [&] { return std::filesystem::exists(file); };
  ToolProcess host(
      {"host", config(), "--no-page", "--watch", "--ready-file", file, "--ready-age", "5"});
  servers.waitEvent("open fast ");
  servers.waitEvent("open slow ");
  EXPECT_FALSE(exists());
  const auto sendOnBoth = [&] {
    servers.command("send fast -");
    servers.command("send slow -");
  };
  servers.command("send fast -");
  host.waitLine("link fast: receiving");
  EXPECT_FALSE(exists());
  sendOnBoth();
  EXPECT_TRUE(waitForFiles(files.path(""), exists));
  EXPECT_TRUE(
      waitForFiles(files.path(""), [&] { return !exists(); }));  // once the messages are old
  sendOnBoth();
  EXPECT_TRUE(waitForFiles(files.path(""), exists));
  host.writeLine("quit");
  EXPECT_EQ(host.waitExit(), 0);
  EXPECT_FALSE(exists());
}

TEST_F(HostTool, RefusesAReadyFileThatItCannotWrite) {
  ToolProcess host({"host", config(), "--no-page", "--ready-file", "/nowhere/ready"});
  EXPECT_EQ(host.waitExit(), 1);
  EXPECT_NE(
      host.errors().find("gatewayctl host: can't write the ready file /nowhere/ready: No such "
                         "file or directory\n"),
      std::string::npos);
}

TEST_F(HostTool, SendsOneNotificationForEachSet) {
  ToolProcess host({"host", config(), "--no-page", "--set", "gain=-6.5", "--set", "delay=-3"});
  EXPECT_EQ(host.waitLine("notification 1 "), "notification 1 gain -6.5 delay -3");
  EXPECT_EQ(
      servers.waitEvent("SetParams 1 "),
      "SetParams 1 0a110a086f75742e6761696e1205150000d0c00a140a0564656c6179120b18fdffffffffffff"
      "ffff01 deadline=none metadata=-");
  host.writeLine("set preset 7 gain 1");
  EXPECT_EQ(host.waitLine("notification 2 "), "notification 2 preset 7 gain 1");
  EXPECT_EQ(servers.waitEvent("SetParams 2 "),
            "SetParams 2 0a0c0a06707265736574120220070a110a086f75742e6761696e1205150000803f "
            "deadline=none metadata=-");
  host.writeLine("quit");
  EXPECT_EQ(host.waitExit(), 0);
}

TEST_F(HostTool, AcceptsQuotedTexts) {
  const std::string path = files.write(
      "text.conf", "[Meters]\nEnableFastMeters=false\nEnableSlowMeters=false\n[Engine]\nTarget=" +
                       servers.engineTarget() + "\n[EngineString]\nParam=Key=t CustomKey=title\n");
  ToolProcess host({"host", path, "--no-page", "--set", "title=big hall"});
  EXPECT_EQ(servers.waitEvent("SetParams 1 "),
            "SetParams 1 0a0f0a0174120a0a086269672068616c6c deadline=none metadata=-");
  host.writeLine("set title 'small hall'");
  EXPECT_EQ(host.waitLine("notification 2"), "notification 2 title small hall");
  host.writeLine("quit");
  EXPECT_EQ(host.waitExit(), 0);
}

TEST_F(HostTool, SetsInTheFormOfItsOptionToo) {
  ToolProcess host({"host", config(), "--no-page", "--set", "gain=-6.5"});
  host.waitLine("notification 1");
  host.writeLine("set gain=1e-50 delay -3");
  EXPECT_EQ(host.waitLine("notification 2"), "notification 2 gain 0 delay -3");
  host.writeLine("quit");
  EXPECT_EQ(host.waitExit(), 0);
}

TEST_F(HostTool, ListsItsCommands) {
  ToolProcess host({"host", config(), "--no-page"});
  host.writeLine("help");
  for (const char* command : {"slots", "get", "set", "help", "quit"}) {
    host.waitLine(std::string("  ") + command);
  }
  host.writeLine("quit");
  EXPECT_EQ(host.waitExit(), 0);
}

TEST_F(HostTool, ExplainsWrongCommandsAndContinues) {
  ToolProcess host({"host", config(), "--no-page"});
  for (const char* line :
       {"set gian 1", "set loudness 1", "set level 1", "set gain loud", "set delay 2147483648",
        "set preset -1", "set gain", "set", "set gain 1e39", "get", "get sate", "slots all",
        "quit now", "dance", "solts", "set gain 'open"}) {
    host.writeLine(line);
  }
  host.writeLine("slots");
  host.waitLine("engine  float");
  host.writeLine("quit");
  EXPECT_EQ(host.waitExit(), 0);
  std::string told;
  std::istringstream errors(host.errors());
  for (std::string line; std::getline(errors, line);) {
    if (line.starts_with("gatewayctl host: ")) told += line + "\n";
  }
  EXPECT_EQ(told,
            "gatewayctl host: no engine slot \"gian\", did you mean \"gain\"?\n"
            "gatewayctl host: no engine slot \"loudness\": there are delay, preset, gain\n"
            "gatewayctl host: level is a fast slot: only engine slots can be set\n"
            "gatewayctl host: gain takes a number from -3.4e38 to 3.4e38, not \"loud\"\n"
            "gatewayctl host: \"2147483648\" is out of range: delay takes an integer from "
            "-2147483648 to 2147483647\n"
            "gatewayctl host: preset takes an integer from 0 to 4294967295, not \"-1\"\n"
            "gatewayctl host: set takes NAME=VALUE: gain has no value\n"
            "gatewayctl host: set takes NAME=VALUE\n"
            "gatewayctl host: \"1e39\" is out of range: gain takes a number from -3.4e38 to "
            "3.4e38\n"
            "gatewayctl host: get takes names of slots\n"
            "gatewayctl host: no slot \"sate\", did you mean \"state\"?\n"
            "gatewayctl host: slots takes no arguments: see get\n"
            "gatewayctl host: quit takes no arguments\n"
            "gatewayctl host: no command \"dance\": there are slots, get, set, help, quit\n"
            "gatewayctl host: no command \"solts\", did you mean \"slots\"?\n"
            "gatewayctl host: a quote is left open\n");
}

TEST_F(HostTool, CarriesOutAnUnterminatedLastLine) {
  ToolProcess host({"host", config(), "--no-page"});
  host.write("quit");
  host.closeInput();
  EXPECT_EQ(host.waitExit(), 0);
}

TEST_F(HostTool, ColoursNothingOffATerminal) {
  ToolProcess host({"host", config(), "--no-page", "--for", "0"});
  EXPECT_EQ(host.waitExit(), 0);
  EXPECT_EQ(host.errors().find('\x1b'), std::string::npos);
}

// `script` runs its command in a terminal.
TEST_F(HostTool, ColoursATerminalUnlessItIsDumb) {
  const std::string command = std::string(GATEWAYCTL_PATH) + " host " + config() + " --for 0";
  const auto output = [&](const std::string& kind) {
    ToolProcess terminal({"-c", "TERM=" + kind + " NO_COLOR= script -qec '" + command +
                                    " --no-page' /dev/null </dev/null"},
                         "/bin/sh");
    EXPECT_EQ(terminal.waitExit(), 0);
    std::string text;
    for (const std::string& line : terminal.lines()) text += line;
    return text;
  };
  EXPECT_NE(output("xterm").find('\x1b'), std::string::npos);
  EXPECT_EQ(output("dumb").find('\x1b'), std::string::npos);
}

// ---- Reloading --------------------------------------------------------------------------------

TEST_F(HostTool, ListsTheSlotsThatAReloadChanges) {
  const std::string path = config();
  ToolProcess host({"host", path, "--no-page", "--watch", "--reload"});
  servers.waitEvent("open fast 1 ");
  servers.command("send fast " + level(-12.5f));
  host.waitLine("fast level -12.5");
  std::string text = textOf(path);
  text.replace(text.find("[MetersFloat]\n"), 14, "[MetersFloat]\nMeter=Key=peak CustomKey=peak\n");
  text.replace(text.find("CustomKey=preset"), 16, "CustomKey=scene");
  std::filesystem::rename(files.write("gateway.conf~", text), path);
  EXPECT_EQ(host.waitLine("reloaded"), "reloaded " + path + ": 6 slots, 3 changed");
  EXPECT_EQ(host.waitLine("new"), "new: fast float 0 peak");
  EXPECT_EQ(host.waitLine("moved"), "moved: fast float 1 level, was fast float 0 level");
  EXPECT_EQ(host.waitLine("renamed"), "renamed: engine uint 0 scene, was engine uint 0 preset");
  // All slots again, with their defaults, and then the restarted streams.
  host.waitLine("fast peak 0");
  host.waitLine("fast level -60.5");
  host.waitLine("link fast: connected to " + servers.metersTarget() + ", no message yet");
  servers.waitEvent("open fast 2 ");
  servers.command("send fast " + level(-13.5f));
  host.waitLine("fast level -13.5");
  host.writeLine("set scene 7");
  EXPECT_EQ(host.waitLine("notification 1"), "notification 1 scene 7");
  host.waitLine("notification 1 answered");
  host.writeLine("quit");
  EXPECT_EQ(host.waitExit(), 0);
}

TEST_F(HostTool, KeepsRunningWhenTheNewConfigurationIsRefused) {
  const std::string path = config();
  const std::string text = textOf(path);
  ToolProcess host({"host", path, "--no-page", "--watch", "--reload"});
  servers.waitEvent("open fast 1 ");
  files.write("gateway.conf", text + "[Metters]\nTarget=x\n");
  host.waitError("gatewayctl host: the module would refuse " + path +
                 ", so it keeps running as before");
  host.waitError("did you mean");  // a finding of the checker
  servers.command("send fast " + level(-12.5f));
  host.waitLine("fast level -12.5");
  EXPECT_FALSE(servers.hasEvent("closed fast"));
  std::filesystem::remove(path);
  host.waitError("gatewayctl host: can't read " + path +
                 ": No such file or directory, so the module keeps running as before");
  files.write("gateway.conf", text + "[EngineInt]\nParam=Key=b CustomKey=b\n");
  EXPECT_EQ(host.waitLine("reloaded"), "reloaded " + path + ": 6 slots, 1 changed");
  servers.waitEvent("open fast 2 ");
}

// The module's reader would crash, or block forever.
TEST_F(HostTool, KeepsRunningWhenTheNewConfigurationCannotBeReadToItsEnd) {
  const std::string path = config();
  const std::string text = textOf(path);
  const std::string pipe = files.path("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  const auto including = [](const std::string& file) {
    return "[ParseIfExist:" + file + "]\nFile=" + file + "\n";
  };
  const std::string loop = files.write("loop", including(files.path("loop")));
  ToolProcess host({"host", path, "--no-page", "--watch", "--reload"});
  servers.waitEvent("open fast 1 ");
  for (const auto& [file, finding] :
       std::map<std::string, std::string>{{loop, "include-cycle"}, {pipe, "endless-file"}}) {
    files.write("gateway.conf", text + including(file));
    host.waitError(finding);
  }
  files.write("gateway.conf", text + "[EngineInt]\nParam=Key=b CustomKey=b\n");
  EXPECT_EQ(host.waitLine("reloaded"), "reloaded " + path + ": 6 slots, 1 changed");
}

// An unanswered call holds up the stop, and meanwhile the file changes once more.
TEST_F(HostTool, StaysStoppedWhileTheConfigurationToStartWithIsRefused) {
  const std::string path = config();
  const std::string text = textOf(path);
  const std::string ready = files.path("ready");
  const auto isReady = [&] { return std::filesystem::exists(ready); };
  ToolProcess host({"host", path, "--no-page", "--watch", "--reload", "--ready-file", ready,
                    "--ready-age", "3600"});
  servers.waitEvent("open fast 1 ");
  servers.waitEvent("open slow 1 ");
  servers.command("send fast -");
  servers.command("send slow -");
  EXPECT_TRUE(waitForFiles(files.path(""), isReady));
  host.writeLine("set gain 1");
  host.waitLine("notification 1 answered");
  servers.freeze();
  host.writeLine("set gain 2");
  host.waitLine("notification 2");
  files.write("gateway.conf", text + "[EngineInt]\nParam=Key=b CustomKey=b\n");
  host.waitError("Starting completion queue flush");
  files.write("gateway.conf", text + "[Metters]\nTarget=x\n");
  servers.thaw();
  host.waitError("gatewayctl host: the module would refuse " + path +
                 ", so it stays stopped until the next change");
  host.waitError("did you mean");  // a finding of the checker
  host.writeLine("set gain 3");
  host.waitError("the module is stopped until its configuration is repaired");
  EXPECT_FALSE(isReady());
  files.write("gateway.conf", text);
  EXPECT_EQ(host.waitLine("reloaded"), "reloaded " + path + ": 5 slots, 0 changed");
  servers.waitEvent("open fast 2 ");
  host.writeLine("quit");
  EXPECT_EQ(host.waitExit(), 0);
}

TEST_F(HostTool, ReloadsADedicatedFileThatAppears) {
  const std::string extra = files.path("extra.conf");
  const std::string path = config();
  files.write("gateway.conf", textOf(path) + "[ParseIfExist:" + extra + "]\nFile=" + extra + "\n");
  ToolProcess host({"host", path, "--no-page", "--json", "--reload"});
  host.waitLine("{\"config\"");
  files.write("extra.conf", "[EngineInt]\nParam=Key=b CustomKey=b\n");
  const auto reloaded = nlohmann::json::parse(host.waitLine("{\"changes\""));
  EXPECT_EQ(reloaded["event"], "reloaded");
  EXPECT_EQ(reloaded["slots"], 6);
  EXPECT_EQ(reloaded["changes"].size(), 1u);
  EXPECT_EQ(reloaded["changes"][0]["kinds"], (nlohmann::json{"new"}));
}

TEST_F(HostTool, JudgesExpectationsAndReadinessByTheReloadedModule) {
  const std::string path = config();
  const std::string ready = files.path("ready");
  const auto exists = [&] { return std::filesystem::exists(ready); };
  ToolProcess host({"host", path, "--no-page", "--watch", "--reload", "--ready-file", ready,
                    "--ready-age", "3600", "--expect", "level is -3 within 60s", "--expect",
                    "state is on within 60s"});
  servers.waitEvent("open fast 1 ");
  servers.waitEvent("open slow 1 ");
  servers.command("send fast " + level(-12.5f));
  servers.command("send slow -");
  EXPECT_TRUE(waitForFiles(files.path(""), exists));
  // The slot of the first expectation moves to another position, and that of the second goes.
  std::string text = textOf(path);
  text.replace(text.find("[MetersFloat]\n"), 14, "[MetersFloat]\nMeter=Key=peak CustomKey=peak\n");
  text.replace(text.find("CustomKey=state"), 15, "CustomKey=mode ");
  files.write("gateway.conf", text);
  host.waitLine("reloaded");
  EXPECT_TRUE(waitForFiles(files.path(""), [&] { return !exists(); }))
      << "messages of the earlier run do not count";
  servers.waitEvent("open fast 2 ");
  servers.command("send fast " + level(-3));
  host.waitLine("fast level -3");
  host.writeLine("quit");
  EXPECT_EQ(host.waitExit(), 1);
  EXPECT_TRUE(host.waitLine("expected level is -3 within 60s: met").ends_with(", -3"));
  EXPECT_TRUE(host.waitLine("expected state is on within 60s: not met").ends_with("no such slot"));
}

TEST_F(HostTool, EndsOnceItsExpectationsAreMet) {
  const std::string report = files.path("report.xml");
  ToolProcess host({"host", config(), "--no-page", "--expect", "level in -30..0 within 60s",
                    "--expect", "gain is -6.5 within 60s", "--set", "gain=-6.5", "--junit",
                    report});
  servers.waitEvent("open fast 1 ");
  servers.command("send fast " + level(-31));
  servers.command("send fast " + level(-30));
  EXPECT_EQ(host.waitExit(), 0);
  EXPECT_TRUE(host.waitLine("expected level in -30..0 within 60s: met after ").ends_with(", -30"));
  host.waitLine("expected gain is -6.5 within 60s: met after ");
  const std::string xml = textOf(report);
  EXPECT_NE(xml.find("tests=\"2\" failures=\"0\""), xml.npos) << xml;
  EXPECT_NE(xml.find("name=\"gain is -6.5 within 60s\""), xml.npos) << xml;
}

// The default lies in the range, but comes from no server.
TEST_F(HostTool, FailsWhenAnExpectationIsNotMetInTime) {
  const std::string report = files.path("report.xml");
  ToolProcess host({"host", config(), "--no-page", "--expect", "level in -61..0 within 0.2s",
                    "--junit", report});
  EXPECT_EQ(host.waitExit(), 1);
  EXPECT_TRUE(host.waitLine("expected level in -61..0 within 0.2s: not met").ends_with(", -60.5"));
  const std::string xml = textOf(report);
  EXPECT_NE(xml.find("tests=\"1\" failures=\"1\""), xml.npos) << xml;
  EXPECT_NE(xml.find("<failure message=\"the last value was -60.5\"/>"), xml.npos) << xml;
}

TEST_F(HostTool, ExplainsWrongExpectations) {
  for (const char* wrong : {"level", "level in 0..-1 within 5s", "level in a..b within 5s",
                            "level at 5 within 5s", "level is 5 within soon"}) {
    ToolProcess host({"host", config(), "--expect", wrong});
    EXPECT_EQ(host.waitExit(), 2) << wrong;
    EXPECT_TRUE(host.errors().starts_with("gatewayctl host: --expect: \"" + std::string(wrong) +
                                          "\" is neither "))
        << host.errors();
  }
  ToolProcess host({"host", config(), "--no-page", "--expect", "levle is 1 within 5s"});
  EXPECT_EQ(host.waitExit(), 1);
  EXPECT_NE(host.errors().find("no slot \"levle\", did you mean \"level\"?"), std::string::npos);
}

TEST_F(HostTool, ReportsWhatIsLeftAfterCycles) {
  ToolProcess host({"host", config(), "--no-page", "--cycles", "3"});
  EXPECT_EQ(host.waitExit(), 0);
  EXPECT_EQ(host.waitLine("cycles"), "cycles            3");
  EXPECT_EQ(host.waitLine("memory"), "memory            0 blocks with 0 bytes not returned");
  EXPECT_EQ(host.waitLine("key/value"), "key/value lists   0 not returned");
  EXPECT_EQ(host.waitLine("callbacks"), "callbacks         0 not removed");
  host.waitLine("threads           ");
  host.waitLine("descriptors       ");
  EXPECT_EQ(host.waitLine("violations"), "violations        0");
}

TEST_F(HostTool, CountsWhatAModuleKeepsAfterCycles) {
  ToolProcess host({"host", "leak", "--module", PROBE_PATH, "--cycles", "2", "--json"});
  EXPECT_EQ(host.waitExit(), 1);
  const auto report = nlohmann::json::parse(host.waitLine("{"));
  EXPECT_EQ(report["cycles"], 2);
  EXPECT_EQ(
      report["not_returned"],
      (nlohmann::json{{"blocks", 2}, {"bytes", 48}, {"key_value_lists", 0}, {"callbacks", 0}}));
  EXPECT_EQ(report["violations"], nlohmann::json::array());
  EXPECT_GE(report["threads"]["before"], 2);  // a sanitizer may have one as well
  EXPECT_EQ(report["descriptors"].size(), 3u);
}

TEST_F(HostTool, ReportsWhatAModuleKeepsOrSpoils) {
  ToolProcess leaking({"host", "leak", "--no-page", "--module", PROBE_PATH, "--for", "0"});
  EXPECT_EQ(leaking.waitExit(), 1);
  EXPECT_NE(
      leaking.errors().find("gatewayctl host: the module did not return 1 blocks with 24 bytes, 0 "
                            "key/value lists, 0 callbacks\n"),
      std::string::npos);
  ToolProcess spoiling({"host", "spoil", "--module", PROBE_PATH, "--cycles", "1"});
  EXPECT_EQ(spoiling.waitExit(), 1);
  EXPECT_EQ(spoiling.waitLine("violations"), "violations        1");
  EXPECT_EQ(spoiling.waitLine("  "),
            "  bytes of the module's record that are the host's were changed");
}

TEST_F(HostTool, EndsCyclesAtASignal) {
  ToolProcess host({"host", config(), "--no-page", "--cycles", "1000", "--for", "3600"});
  servers.waitEvent("open fast 1 ");
  host.signal(SIGINT);
  EXPECT_EQ(host.waitExit(), 130);
  EXPECT_EQ(host.waitLine("cycles"), "cycles            1");
}

TEST_F(HostTool, EndsAtItsTimeAndAtSignals) {
  EXPECT_EQ(ToolProcess({"host", config(), "--for", "0"}).waitExit(), 0);
  for (const int signal : {SIGINT, SIGTERM}) {
    ToolProcess host({"host", config(), "--no-page"});
    host.writeLine("slots");
    host.waitLine("fast    float");
    host.signal(signal);
    EXPECT_EQ(host.waitExit(), 130);
    EXPECT_NE(host.errors().find("Completion queue flush ended"), std::string::npos);
  }
}

// The engine service leaves the call unanswered, and the module's stop waits for it.
TEST_F(HostTool, EndsAtOnceAtASecondSignal) {
  servers.command("engine hold");
  ToolProcess host({"host", config(), "--no-page", "--set", "gain=1"});
  servers.waitEvent("SetParams 1 ");
  host.signal(SIGINT);
  host.signal(SIGTERM);  // the same request from another process
  host.waitError("gatewayctl: stopping takes a while; another signal ends it at once\n");
  host.signal(SIGINT);
  EXPECT_EQ(host.waitExit(), 130);
  EXPECT_EQ(host.errors().find("Completion queue flush ended"), std::string::npos);
}

TEST_F(HostTool, RunsWithoutAWritableLog) {
  for (const char* nowhere : {"2>/dev/full", "2>&-"}) {
    const std::string command = std::string(GATEWAYCTL_PATH) + " host " + config() +
                                " --no-page --for 0 --set gain=1 </dev/null " + nowhere;
    const int status = std::system(command.c_str());
    EXPECT_TRUE(WIFEXITED(status)) << nowhere;
    EXPECT_EQ(WEXITSTATUS(status), 0) << nowhere;
  }
}

TEST_F(HostTool, StopsTheModuleWhenOutputFails) {
  for (const char* nowhere : {">/dev/full", ">&-"}) {
    const std::string log = files.path("log");
    const std::string command = std::string(GATEWAYCTL_PATH) + " host " + config() +
                                " --no-page --watch </dev/null " + nowhere + " 2>" + log;
    const int status = std::system(command.c_str());
    EXPECT_EQ(WEXITSTATUS(status), 1) << nowhere;
    const std::string text = textOf(log);
    EXPECT_NE(text.find("gatewayctl host: can't write to standard output\n"), std::string::npos);
    EXPECT_NE(text.find("Completion queue flush ended"), std::string::npos);
  }
}

TEST_F(HostTool, ContinuesAfterTheEndOfItsInput) {
  ToolProcess host({"host", config(), "--no-page", "--watch"});
  host.closeInput();
  EXPECT_EQ(host.waitLine("fast level"), "fast level -60.5");
  host.signal(SIGTERM);
  EXPECT_EQ(host.waitExit(), 130);
}

TEST_F(HostTool, ExitsWithOneForARefusedConfiguration) {
  const std::string path = files.write("bad.conf", "[Meters]\nnonsense\n");
  ToolProcess host({"host", path, "--no-page"});
  EXPECT_EQ(host.waitExit(), 1);
  EXPECT_NE(host.errors().find("configManager: problem parsing " + path + " (2)"),
            std::string::npos);
  EXPECT_NE(host.errors().find("gatewayctl host: the module refused " + path +
                               "; the messages above and the findings below say why\n" + path +
                               ":2:1: error: "),
            std::string::npos)
      << host.errors();
}

TEST_F(HostTool, SaysWhyItCannotReadItsConfiguration) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {files.path("no.conf"), "No such file or directory"}, {"/", "Is a directory"}};
  for (const auto& [path, reason] : cases) {
    ToolProcess tool({"host", path});
    EXPECT_EQ(tool.waitExit(), 1);
    EXPECT_TRUE(
        tool.errors().ends_with("\ngatewayctl host: can't read " + path + ": " + reason + "\n"))
        << tool.errors();
  }
}

TEST_F(HostTool, ExitsWithOneForAnUnloadableModule) {
  ToolProcess host({"host", config(), "--no-page", "--module", files.path("no.so")});
  EXPECT_EQ(host.waitExit(), 1);
  EXPECT_NE(host.errors().find("no.so"), std::string::npos) << host.errors();
}

TEST_F(HostTool, StopsTheModuleAndExitsWithOneForAnUnknownSlot) {
  ToolProcess host({"host", config(), "--no-page", "--set", "gian=1"});
  EXPECT_EQ(host.waitExit(), 1);
  EXPECT_NE(host.errors().find("no engine slot \"gian\""), std::string::npos);
  EXPECT_NE(host.errors().find("Completion queue flush ended"), std::string::npos);
}

TEST_F(HostTool, ExitsWithTwoForWrongUse) {
  for (const std::vector<std::string>& arguments :
       std::vector<std::vector<std::string>>{{"host"},
                                             {"host", config(), "--name", std::string(32, 'x')},
                                             {"host", config(), "--watch-rate", "1000"},
                                             {"host", config(), "--for", "nan"},
                                             {"host", config(), "--for", "1e10"},
                                             {"host", config(), "--for", "soon"},
                                             {"host", config(), "--set", "gain"},
                                             {"host", config(), "--cycles", "0"},
                                             {"host", config(), "--cycles", "2", "--watch"},
                                             {"host", config(), "--cycles", "2", "--set", "gain=1"},
                                             {"host", config(), "--bogus"}}) {
    ToolProcess host(arguments);
    EXPECT_EQ(host.waitExit(), 2);
    EXPECT_NE(host.errors(), "");
  }
}

}  // namespace
