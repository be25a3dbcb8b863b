// Starts without memory: the stage that a start had reached decides what it leaves behind when it
// fails, and the following stop releases that.
#include <sys/wait.h>

#include <algorithm>
#include <cstring>
#include <map>

#include "tests/proof/memory/MemoryProof.h"
#include "tests/support/SilentPeer.h"

namespace {

constexpr char raised[] = "log 3 C++ exception in grpc gateway: std::bad_alloc";
constexpr char destroying[] = "log 3 grpc-gateway: destroying module manager..";
constexpr char wordsFailed[] = "log 4 error in c_shquote_parse_argv";
constexpr char dedicatedResult[] = "log 1 ret from handle if exist: ";

const Journal refusal = {
    "log 3 gRPC gateway configuration is not valid!",
    "log 4 gRPC gateway module error starting",
    destroying,
};

// How far a start had got, which decides what an exception leaves behind.
enum class Stage { PrivateState, Manager, Configuration, EngineSlots, Client };

Stage stageOf(const std::vector<Allocation>& requests, std::size_t index) {
  const auto buildsEngineSlots = [](const Allocation& request) {
    return request.callers.include("buildEngineSlots");
  };
  if (index == 0) return Stage::PrivateState;
  if (index == 1) return Stage::Manager;
  if (buildsEngineSlots(requests[index])) return Stage::EngineSlots;
  const auto end = requests.begin() + static_cast<std::ptrdiff_t>(index);
  return std::any_of(requests.begin(), end, buildsEngineSlots) ? Stage::Client
                                                               : Stage::Configuration;
}

// A start for which no allocation failed.
struct CleanStart {
  int result = 0;
  std::vector<Allocation> requests;
  std::size_t beforeThread = 0;  // requests until the client thread ran
  Journal log;
  std::size_t slots = 0;
};

// A configuration, and in which lines its entries are.
struct Configuration {
  std::string text;
  std::string dedicated;

  // Splitting an entry into words makes two requests. Returns the line of the entry that makes the
  // nth of these requests, counted from 0; or 0 if the entry is in the dedicated file.
  int lineOfWords(std::size_t nth) const {
    std::vector<int> lines;
    int number = 0;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
      ++number;
      if (line.starts_with("Meter=") || line.starts_with("Param=")) lines.push_back(number);
      if (line.starts_with("File=")) lines.insert(lines.end(), entriesOf(dedicated), 0);
    }
    return lines.at(nth / 2);
  }

  static std::size_t entriesOf(const std::string& text) {
    std::size_t entries = 0;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) entries += line.starts_with("Meter=");
    return entries;
  }
};

class StartWithoutMemory : public WithoutMemory<GatewayTest> {
 protected:
  // All twelve lists, with texts that need memory and texts that do not, and a dedicated file in
  // the middle. `copies` sets the number of entries.
  Configuration full(std::uint64_t copies) {
    const std::string dedicatedPath = files.path("dedicated.conf");
    Configuration configuration;
    configuration.dedicated =
        "[MetersInt]\nMeter=Key=dedicated.counter.with.a.long.name\n"
        "[MetersString]\nMeter=Key=d DefaultValue=\"a text that is longer than that\"\n";
    std::string& text = configuration.text;
    text = "[Meters]\nTarget=" + servers_.target() + "\n[Engine]\nTarget=" + servers_.target() +
           "\n[ParseIfExist:/]\nFile=" + dedicatedPath + "\n";
    for (const std::string type : {"String", "Int", "Uint", "Float"}) {
      text += "[Meters" + type + "]\n";
      for (std::uint64_t i = 0; i < copies; ++i) {
        const std::string name = type + std::to_string(i);
        text += "Meter=Key=" + name + ".a.key.of.some.length CustomKey=" + name +
                "_a_slot_of_some_length DefaultValue=12345\n";
        text += "Meter=Key=s" + name + " Type=slow\n";
      }
      text += "[Engine" + type + "]\n";
      for (std::uint64_t i = 0; i < copies; ++i) {
        const std::string name = type + std::to_string(i);
        text += "Param=Key=" + name + ".a.parameter.of.some.length\nParam=Key=p" + name + "\n";
      }
    }
    return configuration;
  }

  void write(const Configuration& configuration) {
    path_ = files.write("gateway.conf", configuration.text);
    files.write("dedicated.conf", configuration.dedicated);
  }

  // The log of the start without its first line, which contains an address.
  Journal startLog() const {
    Journal lines = log();
    if (!lines.empty()) lines.erase(lines.begin());
    return lines;
  }

  CleanStart startClean() {
    CleanStart clean;
    AllocationFault counting(AllocationFault::never);
    host.setLogSink([&](const standin::LogLine& line) {
      if (line.text == "Start gRPC complete") clean.beforeThread = counting.requestCount();
    });
    clean.result = instance.start(path_);
    counting.end();
    host.setLogSink({});
    clean.requests = counting.allocations();
    clean.log = startLog();
    if (clean.result == 0) {
      clean.slots = instance.slots().size();
      instance.stop();
    } else {
      clean.beforeThread = clean.requests.size();
    }
    expectNothingLeft();
    expectNoOwnBlocks();
    return clean;
  }

  // Starts once while the nth request fails, and expects what that failure leads to.
  void startFailing(const Configuration& configuration, const CleanStart& clean, std::size_t nth,
                    Lasting lasting) {
    SCOPED_TRACE("request " + std::to_string(nth) + " fails " + nameOf(lasting) + ", made by\n" +
                 clean.requests[nth - 1].callers.text());
    host.clearRecords();
    lostBlocks_ = host.outstanding();
    before_ = instance.record();
    AllocationFault fault(static_cast<int>(nth), lasting);
    result_ = instance.start(path_);
    if (lasting == Lasting::Once) fault.end();
    const std::vector<Allocation> requests = fault.allocations();
    ASSERT_GE(requests.size(), nth);
    ASSERT_TRUE(requests[nth - 1].failed);
    const auto raising = std::find_if(requests.begin(), requests.end(), [](const Allocation& each) {
      return each.failed && outcomeOf(each) == Outcome::Raises;
    });
    if (raising != requests.end()) {
      const auto index = static_cast<std::size_t>(raising - requests.begin());
      // An exception ends the start, and unwinding requests nothing.
      EXPECT_EQ(index + 1, requests.size());
      expectRaised(clean, stageOf(requests, index));
      ++seen_["exceptions"];
    } else {
      expectNoException(configuration, clean, requests);
    }
    fault.end();
    EXPECT_EQ(host.violations(), std::vector<std::string>{});
    EXPECT_TRUE(instance.hostBytesIntact());
    EXPECT_EQ(engine.callbackCount(), 0u);
    expectNoOwnBlocks();
  }

  // What an exception at this stage leaves behind. Ends with a stop.
  void expectRaised(const CleanStart& clean, Stage stage) {
    const sonalith_module& record = instance.record();
    EXPECT_EQ(result_, -1);
    expectLogOf(clean,
                stage == Stage::Configuration ? Journal{destroying, raised} : Journal{raised});
    EXPECT_EQ(record.slowMeterTable, before_.slowMeterTable);
    EXPECT_EQ(record.fastMeterTable, before_.fastMeterTable);
    EXPECT_EQ(record.slowMeterOffsets, before_.slowMeterOffsets);
    EXPECT_EQ(record.fastMeterOffsets, before_.fastMeterOffsets);
    EXPECT_EQ(record.moduleOffsets != nullptr, stage == Stage::Client);
    EXPECT_EQ(record.privateData != nullptr, stage != Stage::PrivateState);
    if (stage == Stage::PrivateState) return expectOutstanding(0);

    host.clearRecords();
    instance.stop();
    const bool hasManager = stage >= Stage::EngineSlots;
    EXPECT_EQ(log(), hasManager ? (Journal{"log 1 stopCycle(gateway)", destroying})
                                : (Journal{"log 1 stopCycle(gateway)"}));
    EXPECT_EQ(record.privateData, nullptr);
    EXPECT_EQ(record.moduleOffsets, nullptr);
    // The new list of the engine slots had not been stored in the record.
    expectOutstanding(stage == Stage::EngineSlots ? 1 : 0);
  }

  // The log begins like that of a clean start and ends with these lines.
  void expectLogOf(const CleanStart& clean, const Journal& end) {
    Journal lines = withoutConfigurationLines(startLog());
    const Journal cleanLines = withoutConfigurationLines(clean.log);
    ASSERT_GE(lines.size(), end.size());
    const auto split = lines.end() - static_cast<std::ptrdiff_t>(end.size());
    EXPECT_EQ(Journal(split, lines.end()), end);
    lines.erase(split, lines.end());
    ASSERT_LE(lines.size(), cleanLines.size());
    EXPECT_TRUE(std::equal(lines.begin(), lines.end(), cleanLines.begin()));
  }

  // Leaves out the lines that a failed allocation changes although the start continues.
  static Journal withoutConfigurationLines(Journal lines) {
    std::erase_if(lines, [](const std::string& line) {
      return line == wordsFailed || line.starts_with(dedicatedResult);
    });
    return lines;
  }

  // The start did not notice the failure, or took it for an error in the configuration.
  void expectNoException(const Configuration& configuration, const CleanStart& clean,
                         const std::vector<Allocation>& requests) {
    const auto failed = std::find_if(requests.begin(), requests.end(), [](const Allocation& each) {
      return each.failed && outcomeOf(each) != Outcome::Nothing;
    });
    switch (failed == requests.end() ? Outcome::Nothing : outcomeOf(*failed)) {
      case Outcome::BadFile:
        EXPECT_EQ(count(problem(-1)), 1);
        ++seen_["refusals"];
        return expectRefused();
      case Outcome::BadLine:
        EXPECT_GE(count(wordsFailed), 1);
        EXPECT_EQ(count(problem(firstBadLine(configuration, clean, requests, failed))), 1);
        ++seen_["refusals"];
        return expectRefused();
      case Outcome::DedicatedFails:
        EXPECT_EQ(count(std::string(dedicatedResult) + "0"), 1);
        ++seen_["starts without an entry of the dedicated file"];
        return expectAsClean(clean, lostEntries(configuration, *failed));
      case Outcome::Nothing:
        ++seen_["unnoticed failures"];
        return expectAsClean(clean, 0);
      case Outcome::Raises:
      case Outcome::Unknown:
        ADD_FAILURE() << "a failed request has no expected outcome";
    }
  }

  static std::size_t lostEntries(const Configuration& configuration, const Allocation& failed) {
    const bool isWhole = failed.callers.innermostOwn() == "ini_parse";
    return isWhole ? Configuration::entriesOf(configuration.dedicated) : 1;
  }

  void expectAsClean(const CleanStart& clean, std::size_t lostSlots) {
    EXPECT_EQ(result_, clean.result);
    EXPECT_EQ(withoutConfigurationLines(startLog()), withoutConfigurationLines(clean.log));
    if (result_ != 0) return expectRefused();
    EXPECT_EQ(instance.slots().size(), clean.slots - lostSlots);
    instance.stop();
    expectOutstanding(0);
  }

  void expectRefused() {
    EXPECT_EQ(result_, -1);
    const Journal lines = log();
    ASSERT_GE(lines.size(), refusal.size());
    EXPECT_EQ(Journal(lines.end() - static_cast<std::ptrdiff_t>(refusal.size()), lines.end()),
              refusal);
    EXPECT_EQ(std::memcmp(&instance.record(), &before_, sizeof(before_)), 0);
    expectOutstanding(0);
  }

  // This start has leaked this number of blocks, and nothing else.
  void expectOutstanding(std::size_t blocks) {
    const standin::Outstanding now = host.outstanding();
    EXPECT_EQ(now.blocks, lostBlocks_.blocks + blocks);
    EXPECT_EQ(now.keyValueLists, 0u);
    EXPECT_EQ(now.callbacks, 0u);
  }

  std::string problem(int line) const {
    return "log 3 configManager: problem parsing " + path_ + " (" + std::to_string(line) + ")";
  }

  // The first line with a problem is reported: one that was bad anyway may come first.
  int firstBadLine(const Configuration& configuration, const CleanStart& clean,
                   const std::vector<Allocation>& requests,
                   std::vector<Allocation>::const_iterator failed) {
    const auto words = std::count_if(requests.begin(), failed, [](const Allocation& request) {
      return request.callers.include("c_shquote_parse_argv");
    });
    const int line = configuration.lineOfWords(static_cast<std::size_t>(words));
    for (int earlier = 1; earlier < line; ++earlier) {
      const auto& lines = clean.log;
      if (std::find(lines.begin(), lines.end(), problem(earlier)) != lines.end()) return earlier;
    }
    return line;
  }

  proof::Counts tally() const { return {seen_.begin(), seen_.end()}; }

  // Each request fails in turn, by itself and together with all later ones.
  void failEach(const Configuration& configuration, const CleanStart& clean) {
    for (const Lasting lasting : {Lasting::Once, Lasting::ForGood}) {
      for (std::size_t nth = 1; nth <= clean.beforeThread && !HasFatalFailure(); ++nth) {
        startFailing(configuration, clean, nth, lasting);
      }
    }
  }

  std::string path_;
  // Accepts connections, so that no stream waits for its retry at a stop.
  const SilentPeer servers_{SilentPeer::Kind::Mute};

 private:
  int result_ = 0;
  sonalith_module before_{};
  standin::Outstanding lostBlocks_;
  std::map<std::string, std::uint64_t> seen_;
};

TEST_F(StartWithoutMemory, FailsAsItsStageRequires) {
  const Configuration configuration = full(proof::scaled(1, 4));
  write(configuration);
  const CleanStart clean = startClean();
  ASSERT_EQ(clean.result, 0);
  ASSERT_GT(clean.beforeThread, 50u);
  failEach(configuration, clean);
  // With memory again, the module starts.
  EXPECT_EQ(instance.start(path_), 0);
  EXPECT_EQ(instance.slots().size(), clean.slots);
  instance.stop();
  proof::report({part,
                 "a start with a full configuration, until the client thread runs",
                 "",
                 {{eachAllocation, clean.beforeThread}},
                 "record, log, slots and the following stop are as the stage requires; nothing "
                 "leaks except a list of engine slots that was not finished",
                 tally()});
}

// A client whose thread runs can't be unwound.
TEST_F(StartWithoutMemory, EndsTheProcessOnceTheClientThreadRuns) {
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  const Configuration configuration = full(1);
  write(configuration);
  const CleanStart clean = startClean();
  ASSERT_EQ(clean.result, 0);
  const std::size_t total = clean.requests.size();
  ASSERT_GT(total, clean.beforeThread);
  const auto ends = [](int status) { return !WIFEXITED(status) || WEXITSTATUS(status) != 0; };
  for (const Lasting lasting : {Lasting::Once, Lasting::ForGood}) {
    for (std::size_t nth = clean.beforeThread + 1; nth <= total; ++nth) {
      SCOPED_TRACE(clean.requests[nth - 1].callers.text());
      EXPECT_EXIT(
          {
            const AllocationFault fault(static_cast<int>(nth), lasting);
            instance.start(path_);
            std::_Exit(0);
          },
          ends, "");
    }
  }
  proof::report({part,
                 "a start with a full configuration, once the client thread runs",
                 "",
                 {{eachAllocation, total - clean.beforeThread}},
                 "the process ends, because a running thread can't be unwound"});
}

TEST_F(StartWithoutMemory, NeverAcceptsARefusedConfiguration) {
  const std::string start = "[Meters]\nTarget=" + servers_.target() + "\n";
  const std::vector<std::string> refused = {
      // Every kind of error that a line can have.
      start +
          "[MetersInt]\nMeter=Key=a.key.that.needs.memory DefaultValue=none\n"
          "Meter=Key=b DefaultValue=99999999999\nMeter=Key=c Type=medium.and.longer.than.that\n"
          "Meter=Key=d Unknown.word.of.some.length=1\nMeter=\"Key=e\n[Nowhere]\na=b\n",
      // Errors that verification finds: a duplicate key, an empty key, a long name, no target.
      start + "[MetersInt]\nMeter=Key=a.key.that.needs.memory\nMeter=Key=a.key.that.needs.memory\n",
      start + "[MetersFloat]\nMeter=CustomKey=a.name.that.needs.memory\n",
      start + "[MetersUint]\nMeter=Key=a CustomKey=" + std::string(100, 'x') + "\n",
      start + "[EngineString]\nParam=Key=a.parameter.that.needs.memory\n",
  };
  std::size_t requests = 0;
  for (const std::string& text : refused) {
    SCOPED_TRACE(text);
    const Configuration configuration{text, ""};
    write(configuration);
    host.clearRecords();
    const CleanStart clean = startClean();
    ASSERT_EQ(clean.result, -1);
    requests += clean.requests.size();
    failEach(configuration, clean);
  }
  proof::report({part,
                 "a start with a refused configuration (" + std::to_string(refused.size()) + ")",
                 "",
                 {{eachAllocation, requests}},
                 "the start is refused or throws, and nothing leaks",
                 tally()});
}

}  // namespace
