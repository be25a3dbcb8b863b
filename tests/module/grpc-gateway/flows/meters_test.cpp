// Meter values on their way from a server to the slots.
#include "tests/module/grpc-gateway/flows/FlowTest.h"

namespace {

using standin::SlotValue;

class Meters : public FlowTest {};

constexpr char oneOfEachType[] =
    "Meter=Key=s CustomKey=s DefaultValue=before\n"
    "[MetersInt]\nMeter=Key=i CustomKey=i DefaultValue=-1\n"
    "[MetersUint]\nMeter=Key=u CustomKey=u DefaultValue=1\n"
    "[MetersFloat]\nMeter=Key=f CustomKey=f DefaultValue=-60.5\n";

TEST_F(Meters, SlotsShowTheirDefaultsUntilAValueArrives) {
  startFlowing(oneOfEachType);
  deliverFast(Batch());
  EXPECT_EQ(fast("s"), SlotValue("before"));
  EXPECT_EQ(fast("i"), SlotValue(std::int32_t{-1}));
  EXPECT_EQ(fast("u"), SlotValue(std::uint32_t{1}));
  EXPECT_EQ(fast("f"), SlotValue(-60.5f));
  instance.stop();
  expectNothingLeft();
}

TEST_F(Meters, ValuesOfEveryTypeReachTheirSlots) {
  startFlowing(oneOfEachType);
  deliverFast(Batch()
                  .addString("s", "ready")
                  .addInt("i", -2147483647 - 1)
                  .addUint("u", 4294967295u)
                  .addFloat("f", -12.5f));
  EXPECT_EQ(fast("s"), SlotValue("ready"));
  EXPECT_EQ(fast("i"), SlotValue(std::int32_t{-2147483647 - 1}));
  EXPECT_EQ(fast("u"), SlotValue(std::uint32_t{4294967295u}));
  EXPECT_EQ(fast("f"), SlotValue(-12.5f));
  instance.stop();
  expectNothingLeft();
}

TEST_F(Meters, FastAndSlowValuesReachSlotsOfTheirOwnRate) {
  std::string entries;
  for (const char* type : {"Int", "Uint", "Float", "String"}) {
    entries += Text("[Meters") + type + "]\n";
    for (const char* entry :
         {"only.fast Type=fast CustomKey=only", "both Type=fast CustomKey=both",
          "both Type=slow CustomKey=both", "only.slow Type=slow CustomKey=last"}) {
      entries += Text("Meter=Key=") + entry + type + "\n";
    }
  }
  startFlowing(entries);
  const auto batch = [](std::uint32_t number) {
    Batch values;
    for (const char* key : {"both", "only.fast"}) {
      values.addInt(key, -static_cast<std::int32_t>(number))
          .addUint(key, number)
          .addFloat(key, 0.5f * number)
          .addString(key, std::to_string(number));
      ++number;
    }
    return values;
  };
  deliverFast(batch(1));
  deliverSlow(batch(3));
  EXPECT_EQ(fast("bothInt"), SlotValue(-1));
  EXPECT_EQ(slow("bothInt"), SlotValue(-3));
  EXPECT_EQ(fast("onlyInt"), SlotValue(-2));
  EXPECT_EQ(fast("bothUint"), SlotValue(1u));
  EXPECT_EQ(slow("bothUint"), SlotValue(3u));
  EXPECT_EQ(fast("onlyUint"), SlotValue(2u));
  EXPECT_EQ(fast("bothFloat"), SlotValue(0.5f));
  EXPECT_EQ(slow("bothFloat"), SlotValue(1.5f));
  EXPECT_EQ(fast("onlyFloat"), SlotValue(1.0f));
  EXPECT_EQ(fast("bothString"), SlotValue("1"));
  EXPECT_EQ(slow("bothString"), SlotValue("3"));
  EXPECT_EQ(fast("onlyString"), SlotValue("2"));
  instance.stop();
}

TEST_F(Meters, ValuesMayComeInAnyOrder) {
  std::string entries = "[MetersFloat]\n";
  for (int i = 0; i < 40; ++i) entries += "Meter=Key=level." + std::to_string(i) + "\n";
  startFlowing(entries);
  Batch batch;
  for (int i = 39; i >= 0; --i) batch.addFloat("level." + std::to_string(i), 0.5f * i);
  deliverFast(batch);
  for (int i = 0; i < 40; ++i) {
    EXPECT_EQ(fast("gateway_float_" + std::to_string(i)), SlotValue(0.5f * i));
  }
  instance.stop();
}

TEST_F(Meters, TheLastOfTwoValuesForAKeyCounts) {
  startFlowing(oneOfEachType);
  deliverFast(Batch().addInt("i", 1).addInt("i", 2));
  EXPECT_EQ(fast("i"), SlotValue(2));
  instance.stop();
}

TEST_F(Meters, ASlotKeepsItsValueWhenItsKeyIsNoLongerSent) {
  startFlowing(oneOfEachType);
  deliverFast(Batch().addInt("i", 7));
  deliverFast(Batch().addFloat("f", 1));
  EXPECT_EQ(fast("i"), SlotValue(7));
  instance.stop();
}

TEST_F(Meters, ValuesOfAnotherTypeAreDropped) {
  startFlowing(oneOfEachType);
  deliverFast(Batch()
                  .addInt("f", 5)
                  .addFloat("i", 5)
                  .addUint("i", 5)
                  .addInt("u", 5)
                  .addString("f", "5")
                  .addFloat("s", 5));
  EXPECT_EQ(fast("s"), SlotValue("before"));
  EXPECT_EQ(fast("i"), SlotValue(std::int32_t{-1}));
  EXPECT_EQ(fast("u"), SlotValue(std::uint32_t{1}));
  EXPECT_EQ(fast("f"), SlotValue(-60.5f));
  instance.stop();
}

TEST_F(Meters, AKeyWithTwoTypesReachesASlotOfEachType) {
  startFlowing("[MetersInt]\nMeter=Key=k\n[MetersFloat]\nMeter=Key=k\n");
  deliverFast(Batch().addFloat("k", 1.5f).addInt("k", 2));
  EXPECT_EQ(fast("gateway_int_0"), SlotValue(2));
  EXPECT_EQ(fast("gateway_float_0"), SlotValue(1.5f));
  instance.stop();
}

// Arrays, doubles, values without a member, and keys without a value.
TEST_F(Meters, ValuesThatNoSlotCanHoldAreDropped) {
  startFlowing(oneOfEachType);
  deliverFast(Batch()
                  .add("f", [](auto& value) { value.mutable_afloat()->add_data(5); })
                  .add("i", [](auto& value) { value.mutable_aint()->add_data(5); })
                  .add("u", [](auto& value) { value.mutable_auint()->add_data(5); })
                  .add("f", [](auto& value) { value.set_sdouble(5); })
                  .add("f", [](auto&) {})
                  .addWithoutValue("i")
                  .addWithoutValue("s"));
  EXPECT_EQ(fast("s"), SlotValue("before"));
  EXPECT_EQ(fast("i"), SlotValue(std::int32_t{-1}));
  EXPECT_EQ(fast("u"), SlotValue(std::uint32_t{1}));
  EXPECT_EQ(fast("f"), SlotValue(-60.5f));
  instance.stop();
}

TEST_F(Meters, ValuesOfUnknownKeysAreDropped) {
  startFlowing(oneOfEachType);
  deliverFast(Batch().addInt("I", 5).addInt("", 5).addInt("i ", 5).addInt("other", 5));
  deliverFast(Batch().addInt(Text("i\0", 2), 5).addInt(Text("i\0x", 3), 5));
  EXPECT_EQ(fast("i"), SlotValue(std::int32_t{-1}));
  instance.stop();
}

// It names the slot and nothing else.
TEST_F(Meters, ValuesAreNotMatchedByCustomKey) {
  startFlowing("[MetersInt]\nMeter=Key=real CustomKey=shown\n");
  deliverFast(Batch().addInt("shown", 5));
  EXPECT_EQ(fast("shown"), SlotValue(0));
  instance.stop();
}

TEST_F(Meters, AllValuesOfARateWithoutEntriesAreDropped) {
  ASSERT_EQ(start("[Meters]\nTarget=" + servers.metersTarget() +
                  "\n[MetersString]\nMeter=Key=last.one Type=slow CustomKey=last_one\n"),
            0);
  servers.waitEvent("open fast ");
  servers.waitEvent("open slow ");
  servers.command("send fast " + Batch().addInt("i", 1).addString("last.one", "x").hex());
  servers.waitEvent("sent fast ");
  deliverSlow(Batch().addInt("i", 1));
  instance.stop();
  expectNothingLeft();
}

TEST_F(Meters, AnEmptyTextClearsItsSlot) {
  startFlowing(oneOfEachType);
  deliverFast(Batch().addString("s", ""));
  EXPECT_EQ(fast("s"), SlotValue(""));
  instance.stop();
}

TEST_F(Meters, TheHostsCopyCutsLongTexts) {
  startFlowing(oneOfEachType);
  deliverFast(Batch().addString("s", std::string(99, 'a')));
  EXPECT_EQ(fast("s"), SlotValue(std::string(99, 'a')));
  deliverFast(Batch().addString("s", std::string(100, 'b')));
  EXPECT_EQ(fast("s"), SlotValue(std::string(99, 'b')));
  instance.stop();
  expectNothingLeft();
}

TEST_F(Meters, ALongTextFillsTheBufferOfAHostThatDoesNotTerminate) {
  host.setChoices({.strncpyTerminates = false});
  startFlowing(oneOfEachType);
  deliverFast(Batch().addString("s", std::string(5000, 'c')));
  EXPECT_EQ(fast("s"), SlotValue(std::string(100, 'c')));
  instance.stop();
  expectNothingLeft();
}

TEST_F(Meters, TheStreamContinuesAfterAnEmptyMessage) {
  startFlowing(oneOfEachType);
  servers.command("send fast -");
  deliverFast(Batch().addInt("i", 9));
  EXPECT_EQ(fast("i"), SlotValue(9));
  instance.stop();
}

// The values before the failing one stay, and the next message is processed as usual.
TEST_F(Meters, AnExceptionInAMessageIsLoggedAndTheStreamContinues) {
  startFlowing(oneOfEachType);
  host.clearRecords();
  host.failCall(standin::Operation::Strncpy, 1, "no more");
  servers.command("send fast " +
                  Batch().addInt("i", 5).addString("s", "lost").addInt("i", 6).hex());
  deliverFast(Batch().addFloat("f", 2));
  EXPECT_EQ(log(), (Journal{"log 1 ProcessMeters() no more"}));
  EXPECT_EQ(fast("i"), SlotValue(5));
  EXPECT_EQ(fast("s"), SlotValue("before"));
  EXPECT_EQ(fast("f"), SlotValue(2.0f));
  instance.stop();
  expectNothingLeft();
}

TEST_F(Meters, MessagesAreNotLogged) {
  startFlowing(oneOfEachType);
  host.clearRecords();
  for (int i = 0; i < 50; ++i) deliverFast(Batch().addInt("i", i).addInt("unknown", i));
  EXPECT_EQ(host.journal(), Journal{});
  instance.stop();
}

}  // namespace
