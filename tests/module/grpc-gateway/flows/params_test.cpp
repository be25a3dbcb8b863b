// Parameter changes on their way from the host to the engine service.
#include <latch>
#include <thread>

#include "tests/module/grpc-gateway/flows/FlowTest.h"

namespace {

using standin::KeyValueList;
using standin::Operation;

class Params : public FlowTest {
 protected:
  static constexpr char entries[] =
      "[EngineFloat]\nParam=Key=out.gain CustomKey=gain\nParam=Key=in.gain\n"
      "[EngineInt]\nParam=Key=delay CustomKey=delay\n"
      "[EngineUint]\nParam=Key=preset.number CustomKey=preset\n"
      "[EngineString]\nParam=Key=preset.name CustomKey=name\n";

  void startEngineSide(const std::string& parameters = entries) {
    ASSERT_EQ(start("[Meters]\nEnableFastMeters=false\nEnableSlowMeters=false\n[Engine]\nTarget=" +
                    servers.engineTarget() + "\n" + parameters),
              0);
  }

  // Stops the module, which waits for its calls, and expects that none has arrived.
  void expectNothingSent() {
    instance.stop();
    servers.command("engine reply -");  // when it returns, all earlier events have arrived
    EXPECT_FALSE(servers.hasEvent("SetParams "));
  }

  void stopQuietly() {
    servers.waitEvent("closed SetParams ");
    instance.stop();
  }
};

TEST_F(Params, OneCallCarriesChangesOfEveryTypeInOrderUnderTheRemoteKeys) {
  startEngineSide();
  KeyValueList changes;
  changes.addUint("gateway.preset", 4294967295u)
      .addFloat("gateway.gain", -6.5f)
      .addString("gateway.name", "hall")
      .addInt("gateway.delay", -3)
      .addFloat("gateway.gateway_float_1", 0);
  notify(changes);
  EXPECT_EQ(received(), Request()
                            .addUint("preset.number", 4294967295u)
                            .addFloat("out.gain", -6.5f)
                            .addString("preset.name", "hall")
                            .addInt("delay", -3)
                            .addFloat("in.gain", 0)
                            .hex());
  stopQuietly();
  EXPECT_EQ(host.violations(), std::vector<std::string>{});
}

TEST_F(Params, CallsHaveNoDeadlineAndNoMetadata) {
  startEngineSide();
  KeyValueList changes;
  changes.addFloat("gateway.gain", 1);
  notify(changes);
  EXPECT_EQ(servers.waitEvent("SetParams 1 "),
            "SetParams 1 " + Request().addFloat("out.gain", 1).hex() + " deadline=none metadata=-");
  stopQuietly();
}

TEST_F(Params, EachNotificationMakesACall) {
  startEngineSide();
  KeyValueList first;
  first.addInt("gateway.delay", 1);
  notify(first);
  EXPECT_EQ(received(), Request().addInt("delay", 1).hex());
  notify(first);  // the same value again counts as a change
  EXPECT_EQ(received(), Request().addInt("delay", 1).hex());
  stopQuietly();
}

TEST_F(Params, AChangePassesOnlyWithTheFullNameAndTheTypeOfItsSlot) {
  startEngineSide();
  KeyValueList changes;
  changes
      .addFloat("other.gain", 1)               // of another module
      .addFloat("another.gain", 1)             // whose name is as long as this module's
      .addFloat("gain", 1)                     // without the module's name
      .addFloat("gateway.gateway_float_0", 1)  // this slot has a custom name
      .addFloat("gateway.gain.", 1)
      .addFloat("gateway.Gain", 1)
      .addFloat("gatewaygain", 1)
      .addFloat("gateway-gain", 1)
      .addFloat("", 1)
      .addInt("gateway.gain", 1)  // of another type
      .addUint("gateway.delay", 1)
      .addString("gateway.preset", "1")
      .addFloat("gateway.name", 1);
  notify(changes);
  expectNothingSent();
}

TEST_F(Params, GeneratedNamesTellTheTypeAndThePositionInIt) {
  startEngineSide(
      "[EngineInt]\nParam=Key=i.0\nParam=Key=i.1\n[EngineUint]\nParam=Key=u.0\nParam=Key=u.1\n"
      "[EngineString]\nParam=Key=s.0\nParam=Key=s.1\n");
  KeyValueList changes;
  changes.addInt("gateway.gateway_int_1", 1)
      .addUint("gateway.gateway_uint_1", 2)
      .addString("gateway.gateway_string_1", "3");
  notify(changes);
  EXPECT_EQ(received(), Request().addInt("i.1", 1).addUint("u.1", 2).addString("s.1", "3").hex());
  stopQuietly();
}

// Other spellings of a position are no names.
TEST_F(Params, AGeneratedNameMustMatchExactly) {
  std::string parameters = "[EngineFloat]\n";
  for (int i = 0; i < 12; ++i) parameters += "Param=Key=out." + std::to_string(i) + "\n";
  startEngineSide(parameters);
  KeyValueList changes;
  for (const char* position : {"007", "07", "", "7 ", " 7", "+7", "-0", "7.0", "7.", "12", "0x7",
                               "18446744073709551623", "7gateway_float_7"}) {
    changes.addFloat(("gateway.gateway_float_" + std::string(position)).c_str(), 1);
  }
  for (const char* key : {"gateway.", "gateway", "gateway..gateway_float_7", "gateway.7",
                          "gateway.gateway_int_7", "gateway_float_7", "gateways.gateway_float_7",
                          "gatewa.gateway_float_7", ".gateway_float_7"}) {
    changes.addFloat(key, 1);
  }
  changes.addFloat("gateway.gateway_float_7", 7).addFloat("gateway.gateway_float_11", 11);
  notify(changes);
  EXPECT_EQ(received(), Request().addFloat("out.7", 7).addFloat("out.11", 11).hex());
  stopQuietly();
}

TEST_F(Params, ASlotNameMayHoldAnyText) {
  const std::string longName(99, 'n');
  startEngineSide(
      "[EngineFloat]\nParam=Key=dots CustomKey=a.b..c\nParam=Key=other CustomKey=gateway_float_2\n"
      "Param=Key=generated\nParam=Key=one CustomKey=x\nParam=Key=long CustomKey=" +
      longName + "\n");
  KeyValueList changes;
  changes.addFloat("gateway.a.b..c", 1)
      .addFloat("gateway.a.b", 1)
      .addFloat("gateway.gateway_float_2", 2)
      .addFloat("gateway.x", 3)
      .addFloat("gateway.xx", 1)
      .addFloat(("gateway." + longName).c_str(), 4)
      .addFloat(("gateway." + longName + "n").c_str(), 1)
      .addFloat(("gateway." + longName.substr(1)).c_str(), 1)
      .addFloat(("gateway." + longName.substr(1) + "m").c_str(), 1);
  notify(changes);
  EXPECT_EQ(received(), Request()
                            .addFloat("dots", 1)
                            .addFloat("other", 2)
                            .addFloat("generated", 2)
                            .addFloat("one", 3)
                            .addFloat("long", 4)
                            .hex());
  stopQuietly();
}

TEST_F(Params, ChangesThatNoEntryCanTakeAreDropped) {
  startEngineSide();
  KeyValueList changes;
  changes.addString("gateway.name", nullptr)
      .addUintArray("gateway.preset", {1})
      .addIntArray("gateway.delay", {1})
      .addFloatArray("gateway.gain", {1})
      .addDouble("gateway.gain", 1)
      .addOther("gateway.gain", 8, {})
      .addOther("gateway.gain", 4294967295u, {});
  notify(changes);
  EXPECT_EQ(host.violations(), std::vector<std::string>{});
  expectNothingSent();
}

TEST_F(Params, ChangesOfATypeWithoutEntriesAreDropped) {
  startEngineSide("[EngineInt]\nParam=Key=delay CustomKey=delay\n");
  KeyValueList changes;
  changes.addFloat("gateway.gain", 1).addString("gateway.name", "x").addUint("gateway.preset", 1);
  notify(changes);
  expectNothingSent();
}

TEST_F(Params, ChangesThatDoNotMatchMakeNoCallAndLeaveNoList) {
  startEngineSide();
  const standin::Outstanding before = host.outstanding();
  KeyValueList changes;
  changes.addFloat("other.gain", 1);
  notify(changes);
  EXPECT_EQ(host.outstanding(), before);
  expectNothingSent();
  expectNothingLeft();
}

TEST_F(Params, AChangeGoesToEveryEntryWithItsSlotName) {
  startEngineSide(
      "[EngineFloat]\nParam=Key=left CustomKey=gain\nParam=Key=other\nParam=Key=right "
      "CustomKey=gain\n");
  KeyValueList changes;
  changes.addFloat("gateway.gain", 2);
  notify(changes);
  EXPECT_EQ(received(), Request().addFloat("left", 2).addFloat("right", 2).hex());
  stopQuietly();
}

TEST_F(Params, TheTypeOfAChangeSelectsAmongEqualSlotNames) {
  startEngineSide("[EngineFloat]\nParam=Key=f CustomKey=x\n[EngineInt]\nParam=Key=i CustomKey=x\n");
  KeyValueList changes;
  changes.addInt("gateway.x", 1);
  notify(changes);
  EXPECT_EQ(received(), Request().addInt("i", 1).hex());
  stopQuietly();
}

TEST_F(Params, LongTextsAreSentWhole) {
  startEngineSide();
  const std::string text(5000, 'x');
  KeyValueList changes;
  changes.addString("gateway.name", text.c_str());
  notify(changes);
  EXPECT_EQ(received(), Request().addString("preset.name", text).hex());
  stopQuietly();
}

// The service gets what the host passed, even if no reader of the message accepts it.
TEST_F(Params, TextsThatAreNotUtf8AreSentUnchanged) {
  startEngineSide();
  KeyValueList changes;
  changes.addString("gateway.name", "\xff");
  notify(changes);
  EXPECT_EQ(received(), Request().addString("preset.name", "\xff").hex());
  stopQuietly();
}

TEST_F(Params, ValuesThatTheHostSetsReachTheService) {
  startEngineSide();
  instance.set({{instance.slot(standin::SlotSet::Engine, "gain"), -6.5f},
                {instance.slot(standin::SlotSet::Engine, "name"), std::string("hall")}});
  EXPECT_EQ(received(),
            Request().addFloat("out.gain", -6.5f).addString("preset.name", "hall").hex());
  stopQuietly();
}

TEST_F(Params, ANullKeyIsLoggedAndTheOtherItemsAreSent) {
  host.setChoices({.iterationStopsAtOne = false});
  startEngineSide();
  host.clearRecords();
  KeyValueList changes;
  changes.addInt("gateway.delay", 1).addInt(nullptr, 2).addInt("gateway.delay", 3);
  notify(changes);
  EXPECT_EQ(received(), Request().addInt("delay", 1).addInt("delay", 3).hex());
  EXPECT_EQ(log(), (Journal{"log 1 C++ exception in grpc gateway: basic_string::_M_construct null "
                            "not valid"}));
  stopQuietly();
}

TEST_F(Params, ANullKeyEndsTheIterationIfTheHostStopsAtAResultOfOne) {
  host.setChoices({.iterationStopsAtOne = true});
  startEngineSide();
  KeyValueList changes;
  changes.addInt("gateway.delay", 1)
      .addInt("gateway.delay", 2)
      .addInt(nullptr, 3)
      .addInt("gateway.delay", 4);
  notify(changes);
  EXPECT_EQ(received(), Request().addInt("delay", 1).addInt("delay", 2).hex());
  stopQuietly();
}

TEST_F(Params, ItemsThatDoNotMatchNeverEndTheIterationIfTheHostStopsAtAResultOfOne) {
  host.setChoices({.iterationStopsAtOne = true});
  startEngineSide();
  KeyValueList changes;
  changes
      .addFloat("other.gain", 1)           // of another module
      .addInt("gateway.gain", 1)           // of another type
      .addFloat("gateway.other", 1)        // no slot has this name
      .addString("gateway.name", nullptr)  // no text
      .addIntArray("gateway.delay", {1})   // types that are never forwarded
      .addDouble("gateway.gain", 1)
      .addOther("gateway.gain", 8, {})
      .addInt("gateway.delay", 5);
  notify(changes);
  EXPECT_EQ(received(), Request().addInt("delay", 5).hex());
  stopQuietly();
}

// A null key is the host's error, whatever would have become of the item.
TEST_F(Params, ANullKeyIsLoggedEvenForItemsThatWouldBeDropped) {
  host.setChoices({.iterationStopsAtOne = false});
  startEngineSide();
  host.clearRecords();
  KeyValueList changes;
  changes.addDouble(nullptr, 1).addString(nullptr, nullptr).addOther(nullptr, 8, {});
  notify(changes);
  const std::string line =
      "log 1 C++ exception in grpc gateway: basic_string::_M_construct null not valid";
  EXPECT_EQ(log(), (Journal{line, line, line}));
  expectNothingSent();
}

TEST_F(Params, AFailureToDestroyTheMatchesDoesNotReachTheHost) {
  startEngineSide();
  host.clearRecords();
  host.failCall(Operation::KeyValueListDestroy, 1, "no more");
  KeyValueList changes;
  changes.addFloat("other.gain", 1);
  EXPECT_NO_THROW(notify(changes));
  EXPECT_EQ(log(), (Journal{"log 1 C++ exception in grpc gateway: no more"}));
  EXPECT_EQ(host.outstanding().keyValueLists, 1u);  // the host failed to destroy it
  expectNothingSent();
}

TEST_F(Params, AnExceptionNotDerivedFromStdExceptionReachesTheHost) {
  startEngineSide();
  host.setHook(Operation::KeyValueListIsEmpty, [] { throw 42; });
  KeyValueList changes;
  EXPECT_THROW(notify(changes), int);
  instance.stop();
}

// The host's iteration calls the filter.
TEST_F(Params, AFilterExceptionNotDerivedFromStdExceptionReachesTheHost) {
  startEngineSide();
  host.setHook(Operation::KeyValueListAdd, [] { throw 42; });
  KeyValueList changes;
  changes.addInt("gateway.delay", 1);
  EXPECT_THROW(notify(changes), int);
  instance.stop();
}

TEST_F(Params, ChangesAreDroppedWithoutAnEngineTarget) {
  ASSERT_EQ(start("[Meters]\nEnableFastMeters=false\nEnableSlowMeters=false\n"), 0);
  host.clearRecords();
  KeyValueList changes;
  changes.addFloat("gateway.gateway_float_0", 1);
  notify(changes);
  EXPECT_EQ(log(), Journal{});
  expectNothingSent();
  expectNothingLeft();
}

// Whatever fails in a notification, the list of matches is destroyed and the host gets no
// exception.
struct FailingStep {
  const char* name;
  Operation operation;
};

class ParamsFail : public Params, public ::testing::WithParamInterface<FailingStep> {};

TEST_P(ParamsFail, TheFailureIsLoggedOnceAndNothingIsLeft) {
  startEngineSide();
  host.clearRecords();
  const standin::Outstanding before = host.outstanding();
  host.failCall(GetParam().operation, 1, "no more");
  KeyValueList changes;
  changes.addInt("gateway.delay", 1);
  notify(changes);
  EXPECT_EQ(log(), (Journal{"log 1 C++ exception in grpc gateway: no more"}));
  EXPECT_EQ(host.outstanding(), before);
  EXPECT_EQ(host.violations(), std::vector<std::string>{});
  expectNothingSent();
}

INSTANTIATE_TEST_SUITE_P(AtEachStep, ParamsFail,
                         ::testing::Values(FailingStep{"NewList", Operation::KeyValueListNew},
                                           FailingStep{"Iteration", Operation::KeyValueListForEach},
                                           FailingStep{"IsEmpty", Operation::KeyValueListIsEmpty},
                                           FailingStep{"AddToMatches", Operation::KeyValueListAdd}),
                         [](const auto& instantiation) { return instantiation.param.name; });

TEST_F(Params, AFailureToBuildTheRequestIsLoggedAndNothingIsSent) {
  startEngineSide();
  host.clearRecords();
  const standin::Outstanding before = host.outstanding();
  host.failCall(Operation::KeyValueListForEach, 2, "no more");
  KeyValueList changes;
  changes.addInt("gateway.delay", 1);
  notify(changes);
  EXPECT_EQ(log(), (Journal{"log 1 C++ exception in grpc gateway: no more"}));
  EXPECT_EQ(host.outstanding(), before);
  expectNothingSent();
}

// ---- Answers ------------------------------------------------------------------------------------

TEST_F(Params, NoAnswerIsLoggedOrStopsTheNextChange) {
  startEngineSide();
  host.clearRecords();
  KeyValueList changes;
  changes.addInt("gateway.delay", 1);
  for (const char* answer : {"engine reply -", "engine fail INTERNAL", "engine fail UNAVAILABLE",
                             "engine reply ffff", "engine reply 0a030a0161"}) {
    servers.command(answer);
    notify(changes);
    EXPECT_EQ(received(), Request().addInt("delay", 1).hex()) << answer;
    servers.waitEvent("closed SetParams ");
  }
  EXPECT_EQ(log(), Journal{});
  instance.stop();
}

// Both services share a connection, so a meter value that follows the answer shows that the module
// has taken the answer. By then nothing of the call is left, as the leak sanitizer confirms.
TEST_F(Params, AFinishedCallLeavesNothing) {
  const std::string target = unusedTarget();
  SimProcess both(target, target);
  ASSERT_EQ(start("[Meters]\nTarget=" + target +
                  "\n[MetersString]\nMeter=Key=s CustomKey=s\n[Engine]\nTarget=" + target + "\n" +
                  entries),
            0);
  both.waitEvent("open fast 1 ");
  KeyValueList changes;
  changes.addInt("gateway.delay", 1);
  engine.notify(&changes);
  both.waitEvent("closed SetParams 1 ");
  both.command("send fast " + Batch().addString("s", "after").hex());
  ASSERT_TRUE(host.waitUntil([&] { return fast("s") == standin::SlotValue("after"); }));
  instance.stop();
  expectNothingLeft();
}

TEST_F(Params, ChangesAreSilentlyLostWithoutAService) {
  ASSERT_EQ(start("[Meters]\nEnableFastMeters=false\nEnableSlowMeters=false\n[Engine]\nTarget=" +
                  unusedTarget() + "\n" + entries),
            0);
  host.clearRecords();
  KeyValueList changes;
  changes.addInt("gateway.delay", 1);
  for (int i = 0; i < 20; ++i) notify(changes);
  EXPECT_EQ(log(), Journal{});
  instance.stop();
  EXPECT_EQ(host.violations(), std::vector<std::string>{});
}

TEST_F(Params, AllChangesOfOverlappingNotificationsArrive) {
  startEngineSide();
  constexpr int threads = 4;
  constexpr int rounds = 25;
  std::latch ready(threads);
  std::vector<std::jthread> senders;
  for (int thread = 0; thread < threads; ++thread) {
    senders.emplace_back([&, thread] {
      ready.arrive_and_wait();
      for (int round = 0; round < rounds; ++round) {
        KeyValueList changes;
        changes.addInt("gateway.delay", thread * rounds + round);
        notify(changes);
      }
    });
  }
  std::vector<std::string> arrived;
  std::vector<std::string> expected;
  for (int i = 0; i < threads * rounds; ++i) {
    arrived.push_back(received());
    expected.push_back(Request().addInt("delay", i).hex());
  }
  std::sort(arrived.begin(), arrived.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(arrived, expected);
  senders.clear();
  for (int i = 0; i < threads * rounds; ++i) servers.waitEvent("closed SetParams ");
  instance.stop();
}

}  // namespace
