// The slots that the tools derive from a configuration match those that the module makes.
#include "tools/common/ConfiguredSlots.h"

#include <gtest/gtest.h>

#include "standin/Engine.h"
#include "standin/Host.h"
#include "tests/support/SimProcess.h"
#include "tests/support/TemporaryFolder.h"

namespace {

using gateway::ValueType;
using standin::SlotSet;
using tools::ConfiguredSlot;

class ConfiguredSlots : public ::testing::Test {
 protected:
  // Each value type has lists of one and of two entries: enough to notice a wrong order.
  std::string everything() const {
    std::string text =
        "[Meters]\nTarget=" + unusedTarget() + "\n[Engine]\nTarget=" + unusedTarget() + "\n";
    for (const char* type : {"Float", "Uint", "Int", "String"}) {
      text += std::string("[Meters") + type + "]\nMeter=Key=a DefaultValue=7\n" +
              "Meter=Key=b CustomKey=named\nMeter=Key=c Type=slow\n" + "[Engine" + type +
              "]\nParam=Key=d\nParam=Key=e CustomKey=other\n";
    }
    return files.write("gateway.conf", text);
  }

  TemporaryFolder files;
  standin::Host host;
};

TEST_F(ConfiguredSlots, MatchTheModulesSlotsInOrder) {
  const std::string path = everything();
  const auto expected = tools::slotsOf(gateway::ConfigManager(path));
  standin::Engine engine;
  const standin::LoadedModule module(GATEWAY_MODULE);
  standin::ModuleInstance instance(module, engine);
  ASSERT_EQ(instance.start(path), 0);
  const auto slots = instance.slots();
  EXPECT_EQ(slots.size(), 20u);
  ASSERT_EQ(slots.size(), expected.size());
  for (std::size_t i = 0; i < slots.size(); ++i) {
    EXPECT_EQ(slots[i].set, expected[i].set) << i;
    EXPECT_EQ(ValueType{slots[i].description.valueType}, expected[i].type) << i;
    EXPECT_EQ(slots[i].name(), expected[i].name) << i;
    EXPECT_EQ(slots[i].read(), expected[i].defaultValue) << i;
  }
  instance.stop();
}

TEST_F(ConfiguredSlots, HaveKeysAndGeneratedNames) {
  const auto slots = tools::slotsOf(gateway::ConfigManager(
      files.write("two.conf",
                  "[Meters]\nTarget=x:1\n[MetersInt]\nMeter=Key=a\nMeter=Key=b CustomKey=c "
                  "DefaultValue=-2\n")));
  EXPECT_EQ(slots, (std::vector<ConfiguredSlot>{
                       {SlotSet::Fast, ValueType::Int, 0, "gateway_int_0", true, "a", 0},
                       {SlotSet::Fast, ValueType::Int, 1, "c", false, "b", -2}}));
}

}  // namespace
