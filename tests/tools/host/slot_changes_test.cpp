// How the slots of two configurations differ.
#include "tools/host/SlotChanges.h"

#include <gtest/gtest.h>

namespace {

using gateway::ValueType;
using standin::SlotSet;
using tools::ConfiguredSlot;
using Slots = std::vector<ConfiguredSlot>;

ConfiguredSlot slot(std::size_t position, const std::string& name, const std::string& key) {
  return {SlotSet::Fast, ValueType::Float, position, name, false, key, 0.f};
}

ConfiguredSlot generated(std::size_t position, const std::string& key) {
  ConfiguredSlot made = slot(position, "gateway_float_" + std::to_string(position), key);
  made.nameIsGenerated = true;
  return made;
}

std::vector<std::string> textsBetween(const Slots& before, const Slots& after) {
  std::vector<std::string> texts;
  for (const auto& change : host::changesBetween(before, after)) texts.push_back(textOf(change));
  return texts;
}

using Texts = std::vector<std::string>;

TEST(SlotChanges, AreNoneBetweenEqualConfigurations) {
  EXPECT_EQ(textsBetween({slot(0, "a", "k")}, {slot(0, "a", "k")}), Texts{});
}

TEST(SlotChanges, IncludeNewAndGoneSlots) {
  EXPECT_EQ(textsBetween({slot(0, "a", "k.a")}, {slot(0, "b", "k.b")}),
            (Texts{"new: fast float 0 b", "gone: fast float 0 a"}));
}

TEST(SlotChanges, FollowAKeyToAnotherPlaceAndName) {
  EXPECT_EQ(textsBetween({slot(0, "a", "k.a"), slot(1, "b", "k.b")},
                         {slot(0, "b", "k.b"), slot(1, "c", "k.a")}),
            (Texts{"moved: fast float 0 b, was fast float 1 b",
                   "moved, renamed: fast float 1 c, was fast float 0 a"}));
}

TEST(SlotChanges, FollowAKeyToAnotherTypeAndStream) {
  ConfiguredSlot whole = slot(0, "a", "k.a");
  whole.type = ValueType::Int;
  whole.defaultValue = std::int32_t{0};
  EXPECT_EQ(textsBetween({slot(0, "a", "k.a")}, {whole}),
            Texts{"retyped: fast int 0 a, was fast float 0 a"});
  ConfiguredSlot slow = slot(0, "a", "k.a");
  slow.set = SlotSet::Slow;
  EXPECT_EQ(textsBetween({slot(0, "a", "k.a")}, {slow}),
            Texts{"moved: slow float 0 a, was fast float 0 a"});
}

TEST(SlotChanges, DistinguishAMeterFromAParameterOfTheSameKey) {
  ConfiguredSlot parameter = slot(0, "gain", "k");
  parameter.set = SlotSet::Engine;
  EXPECT_EQ(textsBetween({slot(0, "level", "k")}, {parameter}),
            (Texts{"new: engine float 0 gain", "gone: fast float 0 level"}));
}

TEST(SlotChanges, FollowANameToAnotherKeyUnlessTheNameIsGenerated) {
  EXPECT_EQ(textsBetween({slot(0, "a", "k.a")}, {slot(0, "a", "k.b")}),
            Texts{"rekeyed: fast float 0 a, key k.b, was k.a"});
  EXPECT_EQ(textsBetween({generated(0, "k.a")}, {generated(0, "k.b")}),
            (Texts{"new: fast float 0 gateway_float_0", "gone: fast float 0 gateway_float_0"}));
}

TEST(SlotChanges, RenameGeneratedNamesThatMove) {
  EXPECT_EQ(textsBetween({generated(0, "k.a")}, {generated(0, "k.b"), generated(1, "k.a")}),
            (Texts{"new: fast float 0 gateway_float_0",
                   "moved, renamed: fast float 1 gateway_float_1, was fast float 0 "
                   "gateway_float_0"}));
}

TEST(SlotChanges, IncludeAnotherDefault) {
  ConfiguredSlot loud = slot(0, "a", "k.a");
  loud.defaultValue = -3.f;
  EXPECT_EQ(textsBetween({slot(0, "a", "k.a")}, {loud}), Texts{"default: fast float 0 a"});
}

TEST(SlotChanges, AreJsonForPrograms) {
  const auto changes = host::changesBetween({}, {slot(0, "a", "k.a")});
  ASSERT_EQ(changes.size(), 1u);
  EXPECT_EQ(host::jsonOf(changes[0]), nlohmann::json::parse(R"({"kinds": ["new"], "before": null,
                                      "after": {"set": "fast", "type": "float", "position": 0,
                                                "name": "a", "key": "k.a"}})"));
}

}  // namespace
