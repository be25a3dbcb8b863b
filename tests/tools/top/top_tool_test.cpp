// gatewayctl top in a terminal, as people use it, and without one, as scripts do.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <limits>
#include <string>

#include "meters.pb.h"
#include "tests/support/FileText.h"
#include "tests/support/SimProcess.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/tools/top/Tmux.h"

namespace {

class TopTool : public ::testing::Test {
 protected:
  std::string config(const std::string& more = "") const {
    return files.write("gateway.conf", "[Meters]\nTarget=" + servers.metersTarget() +
                                           "\n[MetersFloat]\nMeter=Key=out.level CustomKey=level "
                                           "DefaultValue=-60\n"
                                           "Meter=Key=in.level CustomKey=input\n"
                                           "[MetersString]\nMeter=Key=state CustomKey=state\n" +
                                           more + "[Engine]\nTarget=" + servers.engineTarget() +
                                           "\n[EngineFloat]\nParam=Key=out.gain CustomKey=gain\n");
  }

  // The command that runs top with these arguments, in a shell.
  static std::string top(const std::string& arguments) {
    return std::string(GATEWAYCTL_PATH) + " top " + arguments;
  }

  void send(const std::string& key, float value) {
    sonalith::grpc::Meter meter;
    meter.add_values()->set_key(key);
    meter.mutable_values(0)->mutable_value()->set_sfloat(value);
    servers.command("send fast " + toHex(meter));
  }

  void send(const std::string& key, const std::string& value) {
    sonalith::grpc::Meter meter;
    meter.add_values()->set_key(key);
    meter.mutable_values(0)->mutable_value()->mutable_sstring()->set_data(value);
    servers.command("send fast " + toHex(meter));
  }

  // The line of the screen that begins with `name`.
  static std::string lineOf(Tmux& terminal, const std::string& name) {
    for (const std::string& line : terminal.lines()) {
      if (line.starts_with(name + " ")) return line;
    }
    return "";
  }

  SimProcess servers;
  TemporaryFolder files;
};

// ---- The screen -------------------------------------------------------------------------------

TEST_F(TopTool, ShowsLinksValuesLevelsAndAges) {
  Tmux terminal(top(config()), 90, 24);
  servers.waitEvent("open fast ");
  send("out.level", -30);
  terminal.waitFor("fast: receiving ");
  terminal.waitFor("engine: not connected to " + servers.engineTarget() + " until a parameter");
  terminal.waitFor("level             -30  \u2588\u2588\u2588\u2588");
  EXPECT_NE(lineOf(terminal, "gain").find("unchanged"), std::string::npos);
  terminal.waitFor("4 slots");
  terminal.waitFor("SET\n");
}

// In the words of the live page, which come from the same place.
TEST_F(TopTool, SaysThatAServerIsGone) {
  Tmux terminal(top(config()), 90, 24);
  servers.waitEvent("open fast ");
  send("out.level", -30);
  terminal.waitFor("fast: receiving ");
  servers.kill();
  terminal.waitFor("fast: no server at " + servers.metersTarget() + ", trying again");
  terminal.waitFor("slow: no server at " + servers.metersTarget() + ", trying again");
  EXPECT_EQ(terminal.screen().find("receiving"), std::string::npos);
}

TEST_F(TopTool, ChoosesSortsAndFiltersByKeys) {
  Tmux terminal(top(config()), 90, 24);
  terminal.waitFor("fast string state  key: state");
  terminal.press("Down");
  terminal.waitFor("fast float level  key: out.level\n-60  scale: -60 to 0");
  terminal.press("End");
  terminal.waitFor("engine float gain  key: out.gain");
  terminal.press("n");
  terminal.waitFor("by name");
  terminal.waitFor("\ngain");
  terminal.press("n");
  terminal.waitFor("by name, descending");
  terminal.press("/");
  terminal.type("L IN");
  terminal.waitFor("filter: L IN_");
  terminal.waitFor("1 of 4 slots");
  EXPECT_NE(lineOf(terminal, "input"), "");
  terminal.press("BSpace");
  terminal.press("BSpace");
  terminal.press("Enter");
  terminal.waitFor("2 of 4 slots");
  terminal.press("Escape");
  terminal.waitFor("4 slots  by name");
}

// A first message changes the state of the link, which is never paused.
TEST_F(TopTool, PausesValuesButNotLinks) {
  Tmux terminal(top(config()), 90, 24);
  servers.waitEvent("open fast ");
  terminal.waitFor("no message yet");
  terminal.press("p");
  terminal.waitFor("values paused at ");
  send("out.level", -30);
  terminal.waitFor("fast: receiving ");
  EXPECT_NE(lineOf(terminal, "level").find("-60"), std::string::npos);
  terminal.press("p");
  terminal.waitFor("-30");
}

TEST_F(TopTool, ExplainsItsKeys) {
  Tmux terminal(top(config()), 90, 24);
  terminal.waitFor("? help");
  terminal.press("?");
  terminal.waitFor("PageUp, PageDown");
  terminal.press("x");
  terminal.waitFor("NAME");
}

TEST_F(TopTool, FollowsTheSizeOfTheTerminal) {
  Tmux terminal(top(config()), 90, 24);
  terminal.waitFor("SET\n");
  terminal.resize(20, 5);
  terminal.waitWithout("SET");
  servers.kill();
  terminal.waitFor("fast: no server at");
  EXPECT_EQ(terminal.lines().size(), 5u);
  EXPECT_NE(lineOf(terminal, "level"), "");
  terminal.resize(1, 1);
  terminal.resize(120, 40);
  terminal.waitFor("SET\n");
}

TEST_F(TopTool, LetsNoTextReachTheTerminalAsAnEscapeSequence) {
  Tmux terminal(top(config()), 120, 24);
  const std::string title = terminal.fact("pane_title");
  servers.waitEvent("open fast ");
  send("state", "\x1b]2;taken\x07\x1b[2J\x1b[8m");
  terminal.waitFor(R"(\x1b]2;taken\x07\x1b[2J\x1b[8m)");
  terminal.waitFor("fast: receiving ");
  EXPECT_EQ(terminal.fact("pane_title"), title);
}

TEST_F(TopTool, ShowsWideTextsAndCutsLongOnes) {
  Tmux terminal(top(config("[MetersInt]\nMeter=Key=n CustomKey=\u30ec\u30d9\u30eb\n")), 60, 24);
  servers.waitEvent("open fast ");
  terminal.waitFor("\n\u30ec\u30d9\u30eb               0  ");
  std::string text;
  for (int i = 0; i < 33; ++i) text += "\u30ec";  // 99 bytes, 66 columns
  send("state", text);
  terminal.waitFor("\u30ec\u2026");
  EXPECT_NE(lineOf(terminal, "state").find("0."), std::string::npos) << "the age has its place";
}

TEST_F(TopTool, ShowsWhatIsNotANumberWithoutALevel) {
  Tmux terminal(top(config()), 90, 24);
  servers.waitEvent("open fast ");
  send("out.level", std::numeric_limits<float>::quiet_NaN());
  terminal.waitFor("level             nan   ");
  send("out.level", std::numeric_limits<float>::infinity());
  terminal.waitFor("level             inf  \u2588\u2588");
}

// gRPC writes to standard error, too, which would garble the screen.
TEST_F(TopTool, CountsLogLinesInsteadOfPrintingThem) {
  Tmux terminal("GRPC_VERBOSITY=DEBUG GRPC_TRACE=http " + top(config()), 90, 24);
  servers.waitEvent("open fast ");
  send("out.level", -30);
  const std::string footer = "? help  q quit  log: ";
  terminal.waitFor(footer);
  terminal.waitFor(" error,");
  EXPECT_EQ(terminal.lines().back().substr(0, footer.size()), footer);
  EXPECT_TRUE(terminal.lines().front().starts_with("gateway  up "));
}

TEST_F(TopTool, ShowsTheSlotsOfAReloadedConfiguration) {
  Tmux terminal(top(config() + " --reload --filter l"), 90, 24);
  terminal.waitFor("2 of 4 slots");
  config("[MetersInt]\nMeter=Key=queue.length CustomKey=queue_length\n");
  terminal.waitFor("3 of 5 slots");
  terminal.waitFor(" reloaded ");
  EXPECT_NE(lineOf(terminal, "queue_length"), "");
  files.write("gateway.conf", "[Metters]\n");
  terminal.waitFor(" error,");
  EXPECT_NE(lineOf(terminal, "queue_length"), "");
}

TEST_F(TopTool, HasNoColoursWithNoColor) {
  Tmux coloured(top(config()), 90, 24);
  coloured.waitFor("fast: connected to");
  EXPECT_NE(coloured.colouredScreen().find("\x1b[32m"), std::string::npos);
  Tmux plain("NO_COLOR=1 " + top(config()), 90, 24);
  plain.waitFor("fast: connected to");
  EXPECT_EQ(plain.colouredScreen().find("\x1b[32m"), std::string::npos);
}

TEST_F(TopTool, ShowsTwentyThousandSlots) {
  std::string meters = "[MetersInt]\n";
  for (int i = 0; i < 20000; ++i) meters += "Meter=Key=m" + std::to_string(i) + "\n";
  Tmux terminal(top(config(meters)), 90, 24);
  terminal.waitFor("20004 slots");
  terminal.press("v");
  terminal.press("End");
  terminal.waitFor("by value, descending");
  terminal.press("/");
  terminal.type("m19999");
  terminal.waitFor("1 of 20004 slots");
  terminal.waitFor("fast int gateway_int_19999  key: m19999");
}

// ---- The end ----------------------------------------------------------------------------------

// Expects that top has ended in its shell with this exit code and has restored the terminal.
void expectRestored(Tmux& terminal, const std::string& exitCode) {
  terminal.waitFor("exit " + exitCode);
  EXPECT_EQ(terminal.fact("alternate_on"), "0");
  EXPECT_EQ(terminal.fact("cursor_flag"), "1");
  terminal.waitFor("isig icanon iexten echo ");
}

TEST_F(TopTool, RestoresTheTerminalWhenItEnds) {
  const std::string command =
      "sh -c 'trap : INT; " + top(config()) + "; echo exit $?; stty -a; read x'";
  for (const auto& [key, exitCode] :
       std::vector<std::pair<std::string, std::string>>{{"q", "0"}, {"C-c", "130"}}) {
    Tmux terminal(command, 90, 24);
    terminal.waitFor("? help");
    EXPECT_EQ(terminal.fact("alternate_on"), "1");
    terminal.press(key);
    expectRestored(terminal, exitCode);
  }
}

TEST_F(TopTool, RestoresTheTerminalWhenItIsTerminated) {
  const std::string pid = files.path("pid");
  Tmux terminal("sh -c 'sh -c \"echo \\$\\$ >" + pid + "; exec " + top(config()) +
                    "\"; echo exit $?; stty -a; read x'",
                90, 24);
  terminal.waitFor("? help");
  kill(std::stoi(textOf(pid)), SIGTERM);
  expectRestored(terminal, "130");
}

TEST_F(TopTool, LeavesTheTerminalWhileItIsSuspended) {
  Tmux terminal("sh -i", 90, 24);
  terminal.type(top(config()));
  terminal.press("Enter");
  terminal.waitFor("? help");
  terminal.press("C-z");
  terminal.waitFor("Stopped");
  EXPECT_EQ(terminal.fact("alternate_on"), "0");
  terminal.type("fg");
  terminal.press("Enter");
  terminal.waitFor("? help");
  EXPECT_EQ(terminal.fact("alternate_on"), "1");
}

TEST_F(TopTool, PrintsTheFindingsOfARefusedConfiguration) {
  const std::string path = files.write("bad.conf", "[Metters]\n");
  Tmux terminal(top(path) + "; read x", 120, 40);
  terminal.waitFor("gatewayctl top: the module refused " + path);
  terminal.waitFor("[Metters]");
}

// ---- Without a terminal -----------------------------------------------------------------------

TEST_F(TopTool, PrintsPlainScreensForPrograms) {
  ToolProcess tool({"top", config(), "--batch", "-d", "0.1", "--filter", "level"});
  servers.waitEvent("open fast ");
  send("out.level", -30);
  send("state", "\x1b[2J\xc2\x9b");
  tool.waitLine("fast: receiving ");
  tool.waitLine("fast  level  -30    ");
  EXPECT_EQ(tool.waitLine("2 of 4 slots"), "2 of 4 slots  filter: level");
  EXPECT_EQ(tool.waitLine("SET"), "SET   NAME   VALUE  AGE        CHANGES  KEY");
  EXPECT_EQ(tool.waitLine("fast  input"), "fast  input  0      unchanged  0        in.level");
  tool.signal(SIGINT);
  EXPECT_EQ(tool.waitExit(), 130);
  for (const std::string& line : tool.lines()) {
    for (const char c : line) EXPECT_GE(static_cast<unsigned char>(c), 0x20) << line;
  }
}

TEST_F(TopTool, EscapesTextsForPrograms) {
  ToolProcess tool({"top", config(), "--batch", "-d", "0.1", "--sort", "name"});
  servers.waitEvent("open fast ");
  send("state", "\x1b[2J\xc2\x9b\u00e4");
  tool.waitLine("fast    state  \\x1b[2J\\xc2\\x9b\u00e4  ");
  tool.signal(SIGINT);
  EXPECT_EQ(tool.waitExit(), 130);
}

TEST_F(TopTool, EndsAfterTheWantedScreens) {
  ToolProcess tool({"top", config(), "--batch", "-n", "2", "-d", "0.1"});
  EXPECT_EQ(tool.waitExit(), 0);
  const auto lines = tool.lines();
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                          [](const std::string& line) { return line.starts_with("SET "); }),
            2);
}

TEST_F(TopTool, HasTheExitCodesOfItsManual) {
  ToolProcess interrupted({"top", config(), "--batch", "-d", "0.1"});
  interrupted.waitLine("SET");
  interrupted.signal(SIGINT);
  EXPECT_EQ(interrupted.waitExit(), 130);

  ToolProcess refused({"top", files.write("bad.conf", "[Metters]\n"), "--batch", "-n", "1"});
  EXPECT_EQ(refused.waitExit(), 1);

  for (const char* wrong : {"-n", "--delay"}) {
    ToolProcess misused({"top", config(), wrong, "1"});
    EXPECT_EQ(misused.waitExit(), 2) << wrong;
  }

  ToolProcess full({"-c", top(config()) + " -b -n 1 -d 0.1 >/dev/full"}, "/bin/sh");
  EXPECT_EQ(full.waitExit(), 1);
  EXPECT_NE(full.errors().find("gatewayctl top: can't write to standard output\n"),
            std::string::npos);
}

TEST_F(TopTool, NeedsATerminalThatCanPlaceItsCursor) {
  ToolProcess tool({"top", config()});
  EXPECT_EQ(tool.waitExit(), 1);
  EXPECT_EQ(tool.errors(),
            "gatewayctl top: standard input and output have to be a terminal; --batch needs "
            "none\n");
  Tmux dumb("TERM=dumb " + top(config()) + "; read x", 90, 24);
  dumb.waitFor("a terminal of type \"dumb\" can't place its cursor");
  Tmux unknown("TERM=no-such-type " + top(config()) + "; read x", 90, 24);
  unknown.waitFor("the terminal type TERM=\"no-such-type\" is unknown here");
}

}  // namespace
