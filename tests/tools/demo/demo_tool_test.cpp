// gatewayctl demo, as people and scripts use it. It must leave nothing behind.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <csignal>
#include <filesystem>
#include <optional>

#include "tests/support/FileText.h"
#include "tests/support/SimProcess.h"
#include "tests/support/TemporaryFolder.h"

namespace {

namespace fs = std::filesystem;

// Recognises the processes of a run by a variable of their environment, which children inherit, and
// temporary files by their folder.
class DemoTool : public ::testing::Test {
 protected:
  DemoTool() { setenv("TMPDIR", folder.path("").c_str(), 1); }
  ~DemoTool() override { unsetenv("TMPDIR"); }

  std::string mark() const { return "TMPDIR=" + folder.path("") + std::string(1, '\0'); }

  // Processes may end while this reads /proc; their files are then empty or missing.
  std::vector<pid_t> processes() const {
    std::vector<pid_t> found;
    for (const auto& entry : fs::directory_iterator("/proc")) {
      const std::string name = entry.path().filename();
      pid_t pid = 0;
      const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), pid);
      if (error != std::errc() || pid == getpid()) continue;
      if (textOf(entry.path() / "environ").find(mark()) != std::string::npos) found.push_back(pid);
    }
    return found;
  }

  // The process that runs the sub-command.
  pid_t processOf(const std::string& subCommand) const {
    for (const pid_t pid : processes()) {
      const std::string line = textOf(fs::path("/proc") / std::to_string(pid) / "cmdline");
      if (line.find('\0' + subCommand + '\0') != std::string::npos) return pid;
    }
    throw std::runtime_error("no process runs " + subCommand);
  }

  void expectNothingLeft() const {
    EXPECT_EQ(processes(), std::vector<pid_t>{});
    EXPECT_TRUE(fs::is_empty(folder.path("")));
  }

  static void waitForValues(ToolProcess& demo) {
    demo.waitLine("fast out_level ");
    demo.waitLine("fast out_level ");
  }

  TemporaryFolder folder;
};

// Waits for the end of a process, which need not be a child.
class EndOf {
 public:
  explicit EndOf(pid_t pid) : descriptor_(static_cast<int>(syscall(SYS_pidfd_open, pid, 0))) {}
  ~EndOf() { close(descriptor_); }
  EndOf(const EndOf&) = delete;
  EndOf& operator=(const EndOf&) = delete;

  bool comes() const {
    pollfd source{descriptor_, POLLIN, 0};
    return poll(&source, 1, static_cast<int>(std::chrono::milliseconds(patience).count())) == 1;
  }

 private:
  int descriptor_;
};

TEST_F(DemoTool, ShowsValuesThatMove) {
  ToolProcess demo({"demo", "--no-page", "--watch-rate", "20"});
  // The default value, unless a message came before the first look.
  const std::string first = demo.waitLine("fast out_level ");
  const std::string second = demo.waitLine("fast out_level ");
  EXPECT_NE(second, first);
  EXPECT_NE(second, "fast out_level -60.5");
  EXPECT_NE(demo.waitLine("fast out_level "), second);
  demo.waitLine("slow dsp_state ");
  demo.writeLine("quit");
  EXPECT_EQ(demo.waitExit(), 0);
  EXPECT_NE(demo.errors().find("Completion queue flush ended"), std::string::npos);
  expectNothingLeft();
}

TEST_F(DemoTool, ShowsChangesThatArrive) {
  ToolProcess demo({"demo", "--no-page", "--set", "out_gain=-6.5", "--set", "preset=loud"});
  EXPECT_EQ(demo.waitLine("simulator: SetParams 1 out.gain"),
            "simulator: SetParams 1 out.gain float -6.5");
  EXPECT_EQ(demo.waitLine("simulator: SetParams 1 preset"),
            "simulator: SetParams 1 preset string loud");
  demo.writeLine("set out_gain 2");
  EXPECT_EQ(demo.waitLine("simulator: SetParams 2 "), "simulator: SetParams 2 out.gain float 2");
  demo.writeLine("quit");
  EXPECT_EQ(demo.waitExit(), 0);
  expectNothingLeft();
}

TEST_F(DemoTool, EndsByItselfAfterTheGivenTime) {
  ToolProcess demo({"demo", "--no-page", "--for", "0", "--set", "out_gain=1"});
  EXPECT_EQ(demo.waitExit(), 0);
  expectNothingLeft();
}

TEST_F(DemoTool, PrintsNoChangesWithNoWatch) {
  ToolProcess demo({"demo", "--no-page", "--no-watch"});
  demo.writeLine("set out_gain 1");
  demo.waitLine("simulator: SetParams 1 ");
  demo.waitLine("notification 1 answered");
  demo.writeLine("quit");
  EXPECT_EQ(demo.waitExit(), 0);
  auto lines = demo.lines();
  std::sort(lines.begin(), lines.end());  // two processes write them, in any order
  EXPECT_EQ(lines, (std::vector<std::string>{"notification 1 answered", "notification 1 out_gain 1",
                                             "simulator: SetParams 1 out.gain float 1"}));
}

TEST_F(DemoTool, ServesThePageOfTheHost) {
  ToolProcess demo({"demo", "--no-watch", "--page", "127.0.0.1:0"});
  const std::string line = demo.waitLine("page http://127.0.0.1:");
  EXPECT_FALSE(line.ends_with(":0/")) << line;
  demo.writeLine("quit");
  EXPECT_EQ(demo.waitExit(), 0);
}

TEST_F(DemoTool, StopsTheModuleAtASignalToTheDemoAlone) {
  for (const int signal : {SIGINT, SIGTERM}) {
    ToolProcess demo({"demo", "--no-page"});
    waitForValues(demo);
    demo.signal(signal);
    EXPECT_EQ(demo.waitExit(), 130);
    EXPECT_NE(demo.errors().find("Completion queue flush ended"), std::string::npos);
    EXPECT_EQ(demo.errors().find("simulator"), demo.errors().find("simulator shows"));
    expectNothingLeft();
  }
}

// As Ctrl-C in a terminal does.
TEST_F(DemoTool, StopsAtASignalToBothProcesses) {
  ToolProcess demo({"demo", "--no-page"});
  waitForValues(demo);
  kill(processOf("host"), SIGINT);
  demo.signal(SIGINT);
  EXPECT_EQ(demo.waitExit(), 130);
  EXPECT_NE(demo.errors().find("Completion queue flush ended"), std::string::npos);
  expectNothingLeft();
}

TEST_F(DemoTool, KeepsTheTerminalsSignalsFromTheSimulator) {
  ToolProcess demo({"demo", "--no-page"});
  waitForValues(demo);
  EXPECT_EQ(getsid(processOf("sim")), processOf("sim"));
  EXPECT_EQ(getpgid(processOf("host")), getpgid(processOf("demo")));
  demo.writeLine("quit");
  EXPECT_EQ(demo.waitExit(), 0);
}

TEST_F(DemoTool, ContinuesAndSaysSoWhenTheSimulatorDies) {
  ToolProcess demo({"demo", "--no-page"});
  waitForValues(demo);
  const EndOf simulator(processOf("sim"));
  kill(processOf("sim"), SIGKILL);
  ASSERT_TRUE(simulator.comes());
  demo.writeLine("slots");
  demo.writeLine("quit");
  EXPECT_EQ(demo.waitExit(), 0);
  EXPECT_NE(demo.errors().find("gatewayctl demo: the simulator is gone: signal 9 ended it. Values "
                               "and changes no longer arrive. End the demo with Ctrl-C or quit.\n"),
            std::string::npos);
  expectNothingLeft();
}

TEST_F(DemoTool, FailsWhenTheHostDies) {
  ToolProcess demo({"demo", "--no-page"});
  waitForValues(demo);
  kill(processOf("host"), SIGKILL);
  EXPECT_EQ(demo.waitExit(), 1);
  EXPECT_NE(demo.errors().find("gatewayctl demo: the host is gone: signal 9 ended it\n"),
            std::string::npos);
  expectNothingLeft();
}

TEST_F(DemoTool, LeavesNothingBehindWhenKilled) {
  std::optional<EndOf> simulator;
  std::optional<EndOf> host;
  {
    ToolProcess demo({"demo", "--no-page"});
    waitForValues(demo);
    simulator.emplace(processOf("sim"));
    host.emplace(processOf("host"));
    demo.signal(SIGKILL);
    EXPECT_EQ(demo.waitExit(), 128 + SIGKILL);
  }
  EXPECT_TRUE(simulator->comes());
  EXPECT_TRUE(host->comes());
  expectNothingLeft();
}

TEST_F(DemoTool, FailsWhenTheHostRefusesItsArguments) {
  ToolProcess unknown({"demo", "--no-page", "--set", "gian=1"});
  EXPECT_EQ(unknown.waitExit(), 1);
  EXPECT_NE(unknown.errors().find("no engine slot \"gian\""), std::string::npos);
  ToolProcess wrong({"demo", "--watch-rate", "1000"});
  EXPECT_EQ(wrong.waitExit(), 2);
  EXPECT_NE(wrong.errors().find("--watch-rate"), std::string::npos);
  expectNothingLeft();
}

TEST_F(DemoTool, ExitsWithTwoForWrongUse) {
  for (const std::vector<std::string>& arguments :
       std::vector<std::vector<std::string>>{{"demo", "--bogus"},
                                             {"demo", "--no-watch", "--watch-rate", "2"},
                                             {"demo", "--no-page", "--page", "127.0.0.1:0"}}) {
    ToolProcess demo(arguments);
    EXPECT_EQ(demo.waitExit(), 2);
    EXPECT_NE(demo.errors(), "");
  }
}

}  // namespace
