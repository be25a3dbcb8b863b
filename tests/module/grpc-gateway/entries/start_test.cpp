// startCycle: its steps in order, what it leaves in the record, and how it refuses to start.
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <string_view>
#include <thread>

#include "tests/module/grpc-gateway/GatewayTest.h"

namespace {

using standin::KeyValueList;
using standin::Operation;

// A configuration that starts and talks to no server.
constexpr char empty[] = "[Meters]\nEnableFastMeters=false\nEnableSlowMeters=false\n";

// Nothing listens on this port, and nothing is sent until a parameter changes.
constexpr char engineOnly[] =
    "[Meters]\nEnableFastMeters=false\nEnableSlowMeters=false\n"
    "[Engine]\nTarget=127.0.0.1:1\n"
    "[EngineInt]\nParam=Key=a\nParam=Key=b CustomKey=bee\n"
    "[EngineString]\nParam=Key=c\n";

constexpr char defaultPathMissing[] =
    "log 3 configManager: problem parsing /etc/sonalith/grpc-gateway.conf (-1)";

const Journal refusal = {
    "log 3 gRPC gateway configuration is not valid!",
    "log 4 gRPC gateway module error starting",
    "log 3 grpc-gateway: destroying module manager..",
};

Journal operator+(Journal first, const Journal& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

class Start : public GatewayTest {
 protected:
  // A refused start returns -1, leaves the record as it was, and keeps nothing.
  void expectRefused(int result) {
    EXPECT_EQ(result, -1);
    EXPECT_EQ(std::memcmp(&instance.record(), &untouched, sizeof(untouched)), 0);
    EXPECT_EQ(instance.record().privateData, nullptr);
    EXPECT_EQ(instance.record().moduleOffsets, nullptr);
    expectNothingLeft();
  }

  const sonalith_module untouched = instance.record();
};

TEST_F(Start, TheDescriptorHoldsNameEntriesAndCode) {
  const plugin_entry& entry = module.entry();
  EXPECT_STREQ(entry.name, "grpc-gateway");
  EXPECT_NE(entry.start, nullptr);
  EXPECT_NE(entry.stop, nullptr);
  EXPECT_EQ(entry.code, 13u);
  EXPECT_EQ(entry.reserved8, 0u);
  EXPECT_EQ(entry.reserved24, 0u);
  EXPECT_EQ(entry.reserved40, 0u);
  EXPECT_EQ(entry.reserved48, 0u);
}

TEST_F(Start, WithoutParametersTheDefaultPathIsUsed) {
  const int result = instance.start(nullptr);
  EXPECT_EQ(log(), (Journal{"log 1 startCycle(gateway, (nil))", defaultPathMissing} + refusal));
  expectRefused(result);
}

TEST_F(Start, WithoutThePathParameterTheDefaultPathIsUsedAndNotLogged) {
  KeyValueList params;
  params.addString("otherParameter", "x");
  const int result = instance.start(&params);
  Journal lines = log();
  lines.erase(lines.begin());  // it shows the address of the list
  EXPECT_EQ(lines, (Journal{defaultPathMissing} + refusal));
  expectRefused(result);
}

TEST_F(Start, TheDefaultPathIsUsedEvenIfAFailedSearchReturnsNull) {
  host.setChoices({.missedTextIsNull = true});
  KeyValueList params;
  const int result = instance.start(&params);
  Journal lines = log();
  lines.erase(lines.begin());
  EXPECT_EQ(lines, (Journal{defaultPathMissing} + refusal));
  expectRefused(result);
}

TEST_F(Start, AnEmptyPathIsLoggedAndTheDefaultPathIsUsed) {
  KeyValueList params;
  params.addString("gatewayConfigPath", "");
  const int result = instance.start(&params);
  Journal lines = log();
  lines.erase(lines.begin());
  EXPECT_EQ(lines, (Journal{"log 1 gatewayConfigPath: ", defaultPathMissing} + refusal));
  expectRefused(result);
}

TEST_F(Start, AMissingFileIsRefused) {
  const std::string path = files.path("missing.conf");
  const int result = instance.start(path);
  Journal lines = log();
  lines.erase(lines.begin());
  EXPECT_EQ(lines, (Journal{"log 1 gatewayConfigPath: " + path,
                            "log 3 configManager: problem parsing " + path + " (-1)"} +
                    refusal));
  expectRefused(result);
}

TEST_F(Start, AFileWithABadLineIsRefusedAndTheManagerIsDestroyed) {
  const int result = start("[Meters]\nnonsense\n");
  Journal lines = log();
  lines.erase(lines.begin(), lines.begin() + 2);
  EXPECT_EQ(lines, (Journal{"log 3 configManager: problem parsing " + files.path("gateway.conf") +
                            " (2)"} +
                    refusal));
  expectRefused(result);
}

TEST_F(Start, ANullPathThrowsAndLeavesThePrivateData) {
  KeyValueList params;
  params.addString("gatewayConfigPath", nullptr);
  EXPECT_EQ(instance.start(&params), -1);
  Journal lines = log();
  lines.erase(lines.begin());
  EXPECT_EQ(
      lines,
      (Journal{"log 1 gatewayConfigPath: (null)", "log 3 grpc-gateway: destroying module manager..",
               "log 3 C++ exception in grpc gateway: basic_string::_M_construct null not "
               "valid"}));
  EXPECT_NE(instance.record().privateData, nullptr);
  EXPECT_EQ(instance.record().moduleOffsets, nullptr);

  host.clearRecords();
  instance.stop();
  EXPECT_EQ(log(), (Journal{"log 1 stopCycle(gateway)"}));
  EXPECT_EQ(instance.record().privateData, nullptr);
  expectNothingLeft();
}

TEST_F(Start, AConfigurationWithoutEntriesStartsWithEmptyListsAndTables) {
  ASSERT_EQ(start(empty), 0);
  const sonalith_module& record = instance.record();
  EXPECT_NE(record.privateData, nullptr);
  ASSERT_NE(record.moduleOffsets, nullptr);
  ASSERT_NE(record.slowMeterTable, nullptr);
  ASSERT_NE(record.fastMeterTable, nullptr);
  const GatewaySlotTable zero{};
  EXPECT_EQ(std::memcmp(record.slowMeterTable, &zero, sizeof(zero)), 0);
  EXPECT_EQ(std::memcmp(record.fastMeterTable, &zero, sizeof(zero)), 0);
  EXPECT_TRUE(instance.slots().empty());
  EXPECT_EQ(engine.callbackCount(), 1u);
  EXPECT_EQ(journalWithoutLog(), (Journal{"createModuleOffset #1", "createModuleOffset #2",
                                          "createModuleOffset #3", "addCallback"}));
  instance.stop();
  expectNothingLeft();
}

TEST_F(Start, StepsAreLoggedInOrder) {
  ASSERT_EQ(start(engineOnly), 0);
  Journal lines = log();
  lines.erase(lines.begin());
  EXPECT_EQ(lines, (Journal{
                       "log 1 gatewayConfigPath: " + files.path("gateway.conf"),
                       "log 1 Start gRPC Gateway Client",
                       "log 1 Start gRPC complete",
                       "log 2 Create stub for engine RPCs on 127.0.0.1:1",
                   }));
  instance.stop();
}

TEST_F(Start, TheFirstLineNamesTheModuleAndItsParameters) {
  KeyValueList params;
  instance.start(&params);
  char address[32];
  std::snprintf(address, sizeof(address), "%p", static_cast<void*>(&params));
  const standin::LogLine first = host.log().front();
  EXPECT_EQ(first.format, "%s(%s, %p)");
  EXPECT_EQ(first.arguments, (std::vector<std::string>{"startCycle", "gateway", address}));
}

// The list moves with each slot that is added, so only its last address is valid.
TEST_F(Start, TheRecordShowsTheEngineSlotsInTheirFinalList) {
  ASSERT_EQ(start(engineOnly), 0);
  Journal steps = journalWithoutLog();
  EXPECT_EQ(steps, (Journal{
                       "createModuleOffset #1",
                       "calloc 1x100 #2",
                       "calloc 1x100 #3",
                       "addModuleOffset #1>#4 gateway_string_0",
                       "calloc 2x4 #5",
                       "calloc 2x100 #6",
                       "addModuleOffset #4>#7 gateway_int_0",
                       "addModuleOffset #7>#8 bee",
                       "createModuleOffset #9",
                       "createModuleOffset #10",
                       "addCallback",
                   }));
  std::vector<std::string> names;
  for (const standin::Slot& slot : instance.slots()) names.push_back(slot.name());
  EXPECT_EQ(names, (std::vector<std::string>{"gateway_string_0", "gateway_int_0", "bee"}));
  instance.stop();
  expectNothingLeft();
}

// ---- The client thread --------------------------------------------------------------------------

const std::filesystem::path tasks("/proc/self/task");

std::string contentOf(const std::filesystem::path& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

// The threads whose name is that of the process, as it is for all that give themselves none.
std::set<std::filesystem::path> unnamedThreads() {
  std::set<std::filesystem::path> threads;
  for (const auto& task : std::filesystem::directory_iterator(tasks)) {
    if (contentOf(task.path() / "comm") == contentOf("/proc/self/comm")) threads.insert(task);
  }
  return threads;
}

class ClientThread : public Start {
 protected:
  // The client thread is the only one left without a name, once gRPC's new threads have theirs.
  ClientThread() {
    std::thread([] {}).join();  // the thread sanitizer starts one of its own with the first
    const auto others = unnamedThreads();
    EXPECT_EQ(start(empty), 0);
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    do {  // nothing tells when a thread is named
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
      threads = unnamedThreads();
      for (const auto& other : others) threads.erase(other);
    } while (threads.size() != 1 && std::chrono::steady_clock::now() < giveUp);
  }
  ~ClientThread() override { instance.stop(); }

  std::set<std::filesystem::path> threads;
};

TEST_F(ClientThread, HasNoNameOfItsOwn) {
  EXPECT_EQ(threads.size(), 1u);
}

TEST_F(ClientThread, SleepsUntilAnEventComes) {
  ASSERT_EQ(threads.size(), 1u);
  const auto timesAsleep = [&] {
    constexpr std::string_view label = "\nvoluntary_ctxt_switches:";
    const std::string status = contentOf(*threads.begin() / "status");
    return std::stoi(status.substr(status.find(label) + label.size()));
  };
  const int before = timesAsleep();
  // That nothing happens shows only over a time. A loop that polls wakes many times in it.
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  EXPECT_LE(timesAsleep() - before, 5);
}

// ---- Failures -----------------------------------------------------------------------------------

TEST_F(Start, AFailedRegistrationStopsTheRunningClient) {
  host.setChoices({.registrationFails = true});
  const int result = start(engineOnly);
  Journal lines = log();
  lines.erase(lines.begin(), lines.begin() + 5);
  EXPECT_EQ(lines, (Journal{
                       "log 4 gRPC gateway module error starting",
                       "log 3 grpc-gateway: destroying module manager..",
                       "log 1 Destructing gRPC gateway client singleton",
                       "log 1 Stop gRPC Gateway client",
                       "log 1 Stop gRPC Gateway complete",
                       "log 1 Shutting down completion queue",
                       "log 1 Starting completion queue flush",
                       "log 1 Completion queue flush ended",
                   }));
  expectRefused(result);
}

// The client must be in place before the registration.
TEST_F(Start, AChangeDuringTheRegistrationIsHandled) {
  KeyValueList changes;
  changes.addInt("gateway.bee", 5);
  host.setChoices({.changesDuringRegistration = &changes});
  ASSERT_EQ(start(engineOnly), 0);
  for (const std::string& line : log()) EXPECT_EQ(line.find("exception"), line.npos) << line;
  instance.stop();
  expectNothingLeft();
}

// ---- Exceptions: what is in the record stays there until a stop releases it ---------------------

struct FailingStep {
  const char* name;
  Operation operation;
  int call;
  bool managerBuilt;
  bool listPublished;
  std::size_t lostBlocks;  // an engine list that never reached the record
};

class StartFails : public Start, public ::testing::WithParamInterface<FailingStep> {};

TEST_P(StartFails, TheFailureIsLoggedOnceAndAStopReleasesTheRest) {
  const FailingStep& step = GetParam();
  host.failCall(step.operation, step.call, "no more");
  EXPECT_EQ(start(engineOnly), -1);
  EXPECT_EQ(log().back(), "log 3 C++ exception in grpc gateway: no more");
  EXPECT_NE(instance.record().privateData, nullptr);
  EXPECT_EQ(instance.record().moduleOffsets != nullptr, step.listPublished);
  EXPECT_EQ(instance.record().slowMeterTable, untouched.slowMeterTable);
  EXPECT_EQ(instance.record().fastMeterTable, untouched.fastMeterTable);
  EXPECT_EQ(instance.record().slowMeterOffsets, untouched.slowMeterOffsets);
  EXPECT_EQ(instance.record().fastMeterOffsets, untouched.fastMeterOffsets);
  EXPECT_EQ(engine.callbackCount(), 0u);

  host.clearRecords();
  instance.stop();
  const Journal lines = log();
  const bool destroyed =
      std::find(lines.begin(), lines.end(), "log 3 grpc-gateway: destroying module manager..") !=
      lines.end();
  EXPECT_EQ(destroyed, step.managerBuilt);
  EXPECT_EQ(instance.record().privateData, nullptr);
  EXPECT_EQ(instance.record().moduleOffsets, nullptr);
  EXPECT_EQ(host.outstanding().blocks, step.lostBlocks);
  EXPECT_EQ(host.violations(), std::vector<std::string>{});
}

INSTANTIATE_TEST_SUITE_P(
    AtEachStep, StartFails,
    ::testing::Values(FailingStep{"ReadingTheParameter", Operation::KeyValueListGetS, 1, false,
                                  false, 0},
                      FailingStep{"EngineList", Operation::CreateModuleOffset, 1, true, false, 0},
                      FailingStep{"EngineValues", Operation::Calloc, 1, true, false, 1},
                      FailingStep{"EngineNames", Operation::Calloc, 2, true, false, 1},
                      FailingStep{"FirstEngineSlot", Operation::AddModuleOffset, 1, true, false, 1},
                      FailingStep{"LastEngineSlot", Operation::AddModuleOffset, 3, true, false, 1},
                      FailingStep{"SlowList", Operation::CreateModuleOffset, 2, true, true, 0},
                      FailingStep{"FastList", Operation::CreateModuleOffset, 3, true, true, 0},
                      FailingStep{"ClientBeforeItsThread", Operation::Log, 3, true, true, 0},
                      FailingStep{"Registration", Operation::AddCallback, 1, true, true, 0}),
    [](const auto& instantiation) { return instantiation.param.name; });

// The configuration calls the host to log while it is being built.
TEST_F(Start, AnExceptionInTheConfigurationDestroysTheManager) {
  host.failCall(Operation::Log, 3, "no more");
  EXPECT_EQ(instance.start(files.path("missing.conf")), -1);
  Journal lines = log();
  lines.erase(lines.begin(), lines.begin() + 2);
  EXPECT_EQ(lines, (Journal{"log 3 grpc-gateway: destroying module manager..",
                            "log 3 C++ exception in grpc gateway: no more"}));
  EXPECT_NE(instance.record().privateData, nullptr);
  instance.stop();
  expectNothingLeft();
}

// Only exceptions derived from std::exception are caught.
TEST_F(Start, AnExceptionNotDerivedFromStdExceptionReachesTheHost) {
  host.setHook(Operation::CreateModuleOffset, [] { throw 42; });
  EXPECT_THROW(start(engineOnly), int);
  EXPECT_NE(instance.record().privateData, nullptr);
  host.setHook(Operation::CreateModuleOffset, {});
  instance.stop();
  expectNothingLeft();
}

// A client whose thread runs can't be unwound. How the process ends is not fixed: the queue is
// destroyed while the thread waits for it, and then the joinable thread.
TEST_F(Start, AnExceptionAfterTheThreadHasStartedEndsTheProcess) {
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT(
      {
        host.failCall(Operation::Log, 5, "no more");
        start(engineOnly);
      },
      endsAbnormally, "");
}

}  // namespace
