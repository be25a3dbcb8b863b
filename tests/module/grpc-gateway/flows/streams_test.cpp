// The two meter streams: how they are opened, and which the configuration disables.
#include "tests/module/grpc-gateway/flows/FlowTest.h"

namespace {

class Streams : public FlowTest {};

constexpr char untouchedCall[] = " - deadline=none metadata=-";

TEST_F(Streams, TheFastStreamStartsFirstThenTheSlowOneThenTheEngineChannel) {
  startFlowing();
  Journal lines = log();
  lines.erase(lines.begin(), lines.begin() + 2);
  EXPECT_EQ(lines, (Journal{
                       "log 1 Start gRPC Gateway Client",
                       "log 1 Start gRPC complete",
                       "log 2 Starting fast meter request on " + servers.metersTarget(),
                       "log 2 Starting slow meter request on " + servers.metersTarget(),
                       "log 2 Create stub for engine RPCs on " + servers.engineTarget(),
                   }));
  instance.stop();
  expectNothingLeft();
}

TEST_F(Streams, CallsHaveAnEmptyRequestNoDeadlineAndNoMetadata) {
  ASSERT_EQ(start(common()), 0);
  EXPECT_EQ(servers.waitEvent("open fast "), Text("open fast 1") + untouchedCall);
  EXPECT_EQ(servers.waitEvent("open slow "), Text("open slow 1") + untouchedCall);
  instance.stop();
}

TEST_F(Streams, ADisabledStreamIsNotOpenedAndItsSlotsKeepTheirDefaults) {
  for (const char* rate : {"Fast", "Slow"}) {
    const bool fastOff = rate == Text("Fast");
    ASSERT_EQ(start("[Meters]\nTarget=" + servers.metersTarget() + "\nEnable" + rate +
                    "Meters=false\n[MetersInt]\nMeter=Key=f Type=fast CustomKey=f DefaultValue=4\n"
                    "Meter=Key=s Type=slow CustomKey=s DefaultValue=5\n"
                    "[MetersString]\nMeter=Key=last.one Type=fast CustomKey=last_one\n"
                    "Meter=Key=last.one Type=slow CustomKey=last_one\n"),
              0);
    servers.waitEvent(fastOff ? "open slow " : "open fast ");
    if (fastOff) {
      deliverSlow(Batch().addInt("s", 1).addInt("f", 1));
    } else {
      deliverFast(Batch().addInt("s", 1).addInt("f", 1));
    }
    EXPECT_EQ(fast("f"), standin::SlotValue(fastOff ? 4 : 1));
    EXPECT_EQ(slow("s"), standin::SlotValue(fastOff ? 1 : 5));
    instance.stop();
    servers.waitEvent("closed ");
    EXPECT_EQ(servers.hasEvent("open fast "), !fastOff);
    expectNothingLeft();
  }
}

TEST_F(Streams, NoStreamIsOpenedWithoutATarget) {
  ASSERT_EQ(start("[Meters]\nEnableFastMeters=false\nEnableSlowMeters=false\n[Engine]\nTarget=" +
                  servers.engineTarget() + "\n"),
            0);
  for (const std::string& line : log()) EXPECT_EQ(line.find("meter request"), line.npos) << line;
  instance.stop();
  EXPECT_FALSE(servers.hasEvent("open "));
  expectNothingLeft();
}

TEST_F(Streams, TheRecordShowsTheirTablesAndLists) {
  startFlowing("[MetersInt]\nMeter=Key=a\nMeter=Key=b\nMeter=Key=c Type=slow\n");
  const sonalith_module& record = instance.record();
  EXPECT_EQ(record.fastMeterTable->intCount, 2u);
  EXPECT_EQ(record.fastMeterTable->stringCount, 1u);
  EXPECT_EQ(record.slowMeterTable->intCount, 1u);
  EXPECT_EQ(record.slowMeterTable->floatCount, 0u);
  for (const standin::Slot& slot : instance.slots(standin::SlotSet::Fast)) {
    EXPECT_EQ(slot.description.flags, 0u);
    EXPECT_EQ(slot.description.validator, nullptr);
  }
  EXPECT_EQ(instance.slot(standin::SlotSet::Fast, "gateway_int_1").description.value,
            &record.fastMeterTable->intValues[1]);
  EXPECT_EQ(instance.slot(standin::SlotSet::Slow, "gateway_int_0").description.value,
            &record.slowMeterTable->intValues[0]);
  instance.stop();
  expectNothingLeft();
}

TEST_F(Streams, SlotsAreBuiltSlowBeforeFastAndTypeByType) {
  ASSERT_EQ(start("[Meters]\nTarget=" + servers.metersTarget() +
                  "\n[MetersFloat]\nMeter=Key=f\nMeter=Key=f Type=slow\n"
                  "[MetersUint]\nMeter=Key=u\nMeter=Key=u Type=slow\n"
                  "[MetersInt]\nMeter=Key=i\nMeter=Key=i Type=slow\n"
                  "[MetersString]\nMeter=Key=s\nMeter=Key=s Type=slow\n"),
            0);
  EXPECT_EQ(journalWithoutLog(), (Journal{"createModuleOffset #1",
                                          "createModuleOffset #2",
                                          "createModuleOffset #3",
                                          "calloc 1x100 #4",
                                          "calloc 1x100 #5",
                                          "addModuleOffset #2>#6 gateway_string_0",
                                          "calloc 1x4 #7",
                                          "calloc 1x100 #8",
                                          "addModuleOffset #6>#9 gateway_int_0",
                                          "calloc 1x4 #10",
                                          "calloc 1x100 #11",
                                          "addModuleOffset #9>#12 gateway_uint_0",
                                          "calloc 1x4 #13",
                                          "calloc 1x100 #14",
                                          "addModuleOffset #12>#15 gateway_float_0",
                                          "calloc 1x100 #16",
                                          "calloc 1x100 #17",
                                          "addModuleOffset #3>#18 gateway_string_0",
                                          "calloc 1x4 #19",
                                          "calloc 1x100 #20",
                                          "addModuleOffset #18>#21 gateway_int_0",
                                          "calloc 1x4 #22",
                                          "calloc 1x100 #23",
                                          "addModuleOffset #21>#24 gateway_uint_0",
                                          "calloc 1x4 #25",
                                          "calloc 1x100 #26",
                                          "addModuleOffset #24>#27 gateway_float_0",
                                          "addCallback"}));
  host.clearRecords();
  instance.stop();
  Journal released;
  for (const std::string& line : journalWithoutLog()) {
    if (line.starts_with("free")) released.push_back(line);
  }
  EXPECT_EQ(released,
            (Journal{"free #5", "free #4", "free #8", "free #7", "free #11", "free #10", "free #14",
                     "free #13", "free #17", "free #16", "free #20", "free #19", "free #23",
                     "free #22", "free #26", "free #25", "free #15", "free #27", "free #1"}));
  expectNothingLeft();
}

TEST_F(Streams, AFailedRegistrationClosesBothStreamsAtTheServer) {
  host.setChoices({.registrationFails = true});
  host.setHook(standin::Operation::AddCallback, [this] {
    servers.waitEvent("open fast ");
    servers.waitEvent("open slow ");
  });
  EXPECT_EQ(start(common()), -1);
  EXPECT_EQ(servers.waitEvent("closed fast "), "closed fast 1 cancelled");
  EXPECT_EQ(servers.waitEvent("closed slow "), "closed slow 1 cancelled");
  EXPECT_EQ(instance.record().privateData, nullptr);
  expectNothingLeft();
}

// The host fails to add a slot while the client is being built.
TEST_F(Streams, AFailureToBuildTheMeterSlotsReleasesAllOfThem) {
  host.failCall(standin::Operation::AddModuleOffset, 2, "no more");
  EXPECT_EQ(start(common()), -1);
  EXPECT_EQ(log().back(), "log 3 C++ exception in grpc gateway: no more");
  instance.stop();
  expectNothingLeft();
}

// Such an exception ends the client thread and nothing else.
TEST_F(Streams, AnExceptionFromAnEventHandlerEndsBothStreamsForGood) {
  startFlowing("[EngineInt]\nParam=Key=delay CustomKey=delay\n");
  host.clearRecords();
  host.failCall(standin::Operation::Strncpy, 1, "no copy");
  host.failCall(standin::Operation::Log, 1, "no log");
  servers.command("send fast " + Batch().addString("last.one", "x").hex());
  ASSERT_TRUE(host.waitUntil([&] { return !log().empty(); }));
  EXPECT_EQ(log(), (Journal{"log 1 C++ exception in asyncMainLoop(): no log"}));

  // Calls are still sent. Their payloads stay until the stop deletes them along with the streams.
  standin::KeyValueList changes;
  changes.addInt("gateway.delay", 1);
  engine.notify(&changes);
  servers.waitEvent("closed SetParams 1 ");
  host.clearRecords();
  instance.stop();
  int flushed = 0;
  for (const std::string& line : log()) flushed += line.starts_with("log 1 Flushing tag ");
  // The slow stream, the call and the stop's own alarm. The fast stream had no event pending.
  EXPECT_EQ(flushed, 3);
  expectNothingLeft();
}

}  // namespace
