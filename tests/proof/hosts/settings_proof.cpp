// Hosts with settings of their own: a locale with a decimal comma, and blocked signals.
#include <signal.h>
#include <unistd.h>

#include <clocale>
#include <filesystem>
#include <fstream>
#include <locale>
#include <map>
#include <set>

#include "tests/proof/hosts/HostTest.h"

namespace proof {
namespace {

// ---- Locale -------------------------------------------------------------------------------------

// Makes a locale and uses it while this lives, in C and in C++. Changes the whole process.
class GermanLocale {
 public:
  explicit GermanLocale(const TemporaryFolder& folder) {
    ToolProcess maker(
        {"--inputfile=" + folder.write("source", source()), "--charmap=UTF-8", folder.path(name)},
        "/usr/bin/localedef");
    if (maker.waitExit() != 0) throw std::runtime_error("can't make a German locale");
    setenv("LOCPATH", folder.path("").c_str(), 1);
    std::locale::global(std::locale(name));
  }
  ~GermanLocale() {
    std::locale::global(std::locale::classic());
    unsetenv("LOCPATH");
  }
  GermanLocale(const GermanLocale&) = delete;
  GermanLocale& operator=(const GermanLocale&) = delete;

 private:
  static constexpr auto name = "de_DE.UTF-8";

  // Character classes and collation take long to make, and do not matter here.
  static std::string source() {
    std::string text;
    for (const std::string category :
         {"CTYPE", "COLLATE", "NUMERIC", "MONETARY", "TIME", "MESSAGES", "PAPER", "NAME", "ADDRESS",
          "TELEPHONE", "MEASUREMENT", "IDENTIFICATION"}) {
      const bool isSlow = category == "CTYPE" || category == "COLLATE";
      text += "LC_" + category + "\ncopy \"" + (isSlow ? "POSIX" : "de_DE") + "\"\nEND LC_" +
              category + "\n";
    }
    return text;
  }
};

// What a host sees of a start.
struct StartSeen {
  int result = 0;
  Journal log;
  std::vector<std::string> slots;  // set, name and value

  bool operator==(const StartSeen&) const = default;
};

void PrintTo(const StartSeen& seen, std::ostream* out) {
  *out << seen.result;
  for (const auto& line : seen.log) *out << "\n" << line;
  for (const auto& slot : seen.slots) *out << "\n" << slot;
}

class HostWithADecimalComma : public HostTest {
 protected:
  // Starts, and stops again.
  StartSeen seeStart(const std::string& configuration) {
    host.clearRecords();
    StartSeen seen{.result = start(configuration), .log = log(), .slots = {}};
    // This line contains the address of the start parameters.
    std::erase_if(seen.log, [](const auto& line) { return line.starts_with("log 1 startCycle("); });
    if (seen.result != 0) return seen;
    for (const auto& slot : instance.slots()) {
      seen.slots.push_back(std::string(nameOf(slot.set)) + " " + slot.name() + " " +
                           standin::textOf(slot.read()));
    }
    instance.stop();
    return seen;
  }

  // Enough slots without a name of their own for a thousands separator in the generated ones.
  static std::string manySlots() {
    std::string text = "[EngineFloat]\n";
    for (int i = 0; i <= slots; ++i) text += "Param=Key=gain." + std::to_string(i) + "\n";
    return text;
  }

  std::string defaultOf(const std::string& section, const std::string& text) const {
    return common() + "[" + section + "]\nMeter=Key=a \"DefaultValue=" + text + "\"\n";
  }

  static constexpr int slots = 1000;
  const std::vector<std::pair<std::string, std::string>> defaults = {
      {"MetersFloat", "1.5"},   {"MetersFloat", "-0.25e1"}, {"MetersFloat", " +.5x"},
      {"MetersFloat", "1,5"},   {"MetersFloat", ",5"},      {"MetersFloat", "0x1.8p1"},
      {"MetersFloat", "nan"},   {"MetersFloat", "1e39"},    {"MetersFloat", "1e-60"},
      {"MetersFloat", "1.000"}, {"MetersInt", "1.000"},     {"MetersUint", "1.000"},
      {"MetersInt", "x"},
  };
};

TEST_F(HostWithADecimalComma, StartsAndFlowsAsWithAPoint) {
  host.setChoices({.listsAlwaysMove = false});  // for so many slots
  std::vector<StartSeen> usual;
  for (const auto& [section, text] : defaults) usual.push_back(seeStart(defaultOf(section, text)));
  const std::string many = common() + entries + manySlots();
  const StartSeen usualMany = seeStart(many);
  ASSERT_EQ(usualMany.result, 0);

  const GermanLocale german(files);
  ASSERT_STREQ(std::localeconv()->decimal_point, ",");
  for (std::size_t i = 0; i < defaults.size(); ++i) {
    const auto& [section, text] = defaults[i];
    EXPECT_EQ(seeStart(defaultOf(section, text)), usual[i]) << section << " " << text;
  }
  EXPECT_EQ(seeStart(many), usualMany);

  servers.forgetEvents();
  startFlowing(entries + manySlots());
  expectFlow();
  standin::KeyValueList changes;
  changes.addFloat("gateway.gateway_float_1000", -1.5f);
  notify(changes);
  EXPECT_EQ(received(), Request().addFloat("gain.1000", -1.5f).hex());
  stopFlowing();
  report({hostsPart,
          "one with a decimal comma (de_DE)",
          "",
          {{"default values", defaults.size()}, {"slots", usualMany.slots.size()}},
          "the same results, log lines, slots and values as in the locale C; values arrive, and "
          "changes are sent"});
}

// ---- Signals ------------------------------------------------------------------------------------

std::set<std::string> threads() {
  std::set<std::string> ids;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
    ids.insert(entry.path().filename());
  }
  return ids;
}

// The signals that a thread blocks, as the kernel writes them; empty if the thread has ended.
std::string blockedBy(const std::string& thread) {
  std::ifstream status("/proc/self/task/" + thread + "/status");
  for (std::string name, value; status >> name; std::getline(status, value)) {
    if (name == "SigBlk:" && status >> value) return value;
  }
  return "";
}

std::map<int, void (*)(int)> handlers() {
  std::map<int, void (*)(int)> found;
  for (int number = 1; number < NSIG; ++number) {
    struct sigaction action {};
    if (sigaction(number, nullptr, &action) == 0) found[number] = action.sa_handler;
  }
  return found;
}

// Made before any thread of the test, so that all threads inherit it.
class BlockedSignals {
 public:
  BlockedSignals() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  ~BlockedSignals() {
    takePending();
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  }
  BlockedSignals(const BlockedSignals&) = delete;
  BlockedSignals& operator=(const BlockedSignals&) = delete;

 protected:
  static std::set<int> pending() {
    sigset_t waiting;
    sigpending(&waiting);
    std::set<int> numbers;
    for (int number = 1; number < NSIG; ++number) {
      if (sigismember(&waiting, number) == 1) numbers.insert(number);
    }
    return numbers;
  }

  static void takePending() {
    sigset_t all;
    sigfillset(&all);
    const timespec none{};
    while (sigtimedwait(&all, nullptr, &none) > 0) continue;
  }

 private:
  sigset_t before_;
};

class HostThatBlocksSignals : public BlockedSignals, public HostTest {
 protected:
  // Sends the process every signal that can be blocked and stops nothing.
  static std::set<int> raiseAll() {
    const std::set<int> others = {SIGKILL, SIGSTOP, SIGTSTP, SIGTTIN, SIGTTOU, SIGCONT};
    for (int number = 1; number < SIGSYS; ++number) {
      if (!others.contains(number)) kill(getpid(), number);
    }
    return pending();
  }
};

// All threads that exist must block them, so it needs a process without threads of gRPC.
TEST_F(HostThatBlocksSignals, FindsThemBlockedPendingAndUnhandledAfterwards) {
  expectOwnProcess([this] {
    const std::uint64_t rounds = scaled(3, 300);
    const auto before = threads();
    const auto handled = handlers();
    const std::string blocked = blockedBy(std::to_string(gettid()));
    const auto raised = raiseAll();
    EXPECT_GT(raised.size(), 20u);
    std::set<std::string> seen;
    for (std::uint64_t round = 0; round < rounds && !HasFailure(); ++round) {
      startFlowing(entries);
      expectFlow();
      for (const auto& thread : threads()) {
        const std::string blocks = blockedBy(thread);
        if (before.contains(thread) || blocks.empty()) continue;
        EXPECT_EQ(blocks, blocked);
        seen.insert(thread);
      }
      stopFlowing();
      servers.forgetEvents();
    }
    EXPECT_GE(seen.size(), rounds);
    EXPECT_EQ(blockedBy(std::to_string(gettid())), blocked);
    EXPECT_EQ(handlers(), handled);
    EXPECT_EQ(pending(), raised);
    report({hostsPart,
            "one that blocks all signals",
            "pending before the start",
            {{"starts, flows and stops", rounds}, {"pending signals", raised.size()}},
            "every thread of the module and of gRPC blocks them too; none is taken, added or "
            "handled; values arrive, and changes are sent"});
  });
}

// Writing to a connection that the peer has closed raises SIGPIPE unless the writer prevents it.
TEST_F(HostThatBlocksSignals, FindsNoneRaisedByAPeerThatDies) {
  expectOwnProcess([this] {
    const std::uint64_t rounds = scaled(3, 100);
    takePending();
    for (std::uint64_t round = 0; round < rounds && !HasFailure(); ++round) {
      SimProcess service("", SimProcess::anyPort);
      ASSERT_EQ(start(flowConfiguration(servers.metersTarget(), service.engineTarget()) + entries),
                0);
      servers.waitEvent("open fast ");
      servers.waitEvent("open slow ");
      change(1);
      service.waitEvent("SetParams 1 ");
      service.kill();
      for (int i = 0; i < 20; ++i) change(i);
      deliverFast(Batch());
      stopFlowing();
      servers.forgetEvents();
    }
    std::set<int> left = pending();
    left.erase(SIGCHLD);  // of the service
    EXPECT_EQ(left, std::set<int>{});
    report({hostsPart,
            "one that blocks all signals",
            "an engine service that dies",
            {{"services", rounds}, {"changes after the death of its service", 20 * rounds}},
            "no signal is raised, and values continue"});
  });
}

}  // namespace
}  // namespace proof
