// stopCycle: the order in which it releases what a start has built.
#include <csignal>

#include "tests/module/grpc-gateway/GatewayTest.h"

namespace {

using standin::Operation;

constexpr char withEngineSlots[] =
    "[Meters]\nEnableFastMeters=false\nEnableSlowMeters=false\n"
    "[Engine]\nTarget=127.0.0.1:1\n"
    "[EngineString]\nParam=Key=a\n[EngineInt]\nParam=Key=b\n"
    "[EngineUint]\nParam=Key=c\n[EngineFloat]\nParam=Key=d\n";

constexpr char withoutSlots[] = "[Meters]\nEnableFastMeters=false\nEnableSlowMeters=false\n";

class Stop : public GatewayTest {};

TEST_F(Stop, ReleasesTheCallbackThenEngineSlotsThenTheClientThenTheLists) {
  ASSERT_EQ(start(withEngineSlots), 0);
  host.clearRecords();
  instance.stop();
  // The numbers of the blocks: 1, 4, 7, 10 and 13 are the engine list as it moves, the numbers
  // between them the values and names of each group, 14 and 15 the meter lists.
  EXPECT_EQ(host.journal(), (Journal{
                                "log 1 stopCycle(gateway)",
                                "log 3 grpc-gateway: destroying module manager..",
                                "rmCallback",
                                "free #3",
                                "free #2",
                                "free #6",
                                "free #5",
                                "free #9",
                                "free #8",
                                "free #12",
                                "free #11",
                                "log 1 Destructing gRPC gateway client singleton",
                                "log 1 Stop gRPC Gateway client",
                                "log 1 Stop gRPC Gateway complete",
                                "log 1 Shutting down completion queue",
                                "log 1 Starting completion queue flush",
                                "log 1 Completion queue flush ended",
                                "free #14",
                                "free #15",
                                "free #13",
                            }));
  expectNothingLeft();
}

TEST_F(Stop, WithoutSlotsItReleasesOnlyTheLists) {
  ASSERT_EQ(start(withoutSlots), 0);
  host.clearRecords();
  instance.stop();
  EXPECT_EQ(journalWithoutLog(), (Journal{"rmCallback", "free #2", "free #3", "free #1"}));
  expectNothingLeft();
}

TEST_F(Stop, ItClearsTheRecordExceptForTheMeterLists) {
  ASSERT_EQ(start(withEngineSlots), 0);
  const sonalith_module running = instance.record();
  instance.stop();
  const sonalith_module& record = instance.record();
  EXPECT_EQ(record.privateData, nullptr);
  EXPECT_EQ(record.moduleOffsets, nullptr);
  EXPECT_EQ(record.slowMeterTable, nullptr);
  EXPECT_EQ(record.fastMeterTable, nullptr);
  EXPECT_EQ(record.slowMeterOffsets, running.slowMeterOffsets);
  EXPECT_EQ(record.fastMeterOffsets, running.fastMeterOffsets);
}

TEST_F(Stop, ItHidesTheTablesFirst) {
  ASSERT_EQ(start(withoutSlots), 0);
  bool hidden = false;
  host.setLogSink([&](const standin::LogLine& line) {
    if (line.text == "grpc-gateway: destroying module manager..") {
      hidden = instance.record().slowMeterTable == nullptr &&
               instance.record().fastMeterTable == nullptr &&
               instance.record().privateData != nullptr;
    }
  });
  instance.stop();
  EXPECT_TRUE(hidden);
}

TEST_F(Stop, AnExceptionIsLoggedAndDoesNotReachTheHost) {
  ASSERT_EQ(start(withoutSlots), 0);
  host.clearRecords();
  host.failCall(Operation::Log, 1, "no more");
  instance.stop();
  EXPECT_EQ(log(), (Journal{"log 3 C++ exception in grpc gateway: no more"}));
  instance.stop();  // the first stop has released nothing
  expectNothingLeft();
}

TEST_F(Stop, AnExceptionNotDerivedFromStdExceptionReachesTheHost) {
  ASSERT_EQ(start(withoutSlots), 0);
  host.setHook(Operation::Log, [] { throw 42; });
  EXPECT_THROW(instance.stop(), int);
  host.setHook(Operation::Log, {});
  instance.stop();
  expectNothingLeft();
}

// A refused start leaves such a record. A host must not stop it, and the module does not check.
TEST_F(Stop, StoppingARecordWithoutPrivateDataCrashes) {
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  ASSERT_EQ(instance.record().privateData, nullptr);
  EXPECT_EXIT(instance.stop(), endsAbnormally, "");
}

TEST_F(Stop, AnExceptionInTheManagersDestructorEndsTheProcess) {
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT(
      {
        start(withoutSlots);
        host.failCall(Operation::RmCallback);
        instance.stop();
      },
      ::testing::KilledBySignal(SIGABRT), "");
}

TEST_F(Stop, TheSameRecordCanBeStartedAgain) {
  for (int round = 0; round < 3; ++round) {
    ASSERT_EQ(start(withEngineSlots), 0);
    instance.stop();
    expectNothingLeft();
  }
}

TEST_F(Stop, TwoInstancesDoNotAffectEachOther) {
  standin::ModuleInstance other(module, engine, "other");
  ASSERT_EQ(start(withEngineSlots), 0);
  ASSERT_EQ(other.start(files.path("gateway.conf")), 0);
  EXPECT_NE(other.record().privateData, instance.record().privateData);
  instance.stop();
  EXPECT_EQ(other.slots().size(), 4u);
  other.stop();
  expectNothingLeft();
}

}  // namespace
