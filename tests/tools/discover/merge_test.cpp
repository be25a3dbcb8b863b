// A configuration keeps what it has when keys are added to it.
#include "tools/discover/Merge.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <stdexcept>

#include "standin/Host.h"
#include "standin/MemoryFile.h"

namespace {

using discover::Existing;
using standin::SlotSet;
using tools::ConfiguredSlot;
using tools::SeenKey;
using tools::Sightings;
using tools::ValueCase;

class MergeTest : public ::testing::Test {
 protected:
  static std::vector<ConfiguredSlot> slotsOf(const std::string& text) {
    const gateway::ConfigManager config(standin::MemoryFile(text).path());
    EXPECT_TRUE(config.valid) << text;
    return tools::slotsOf(config);
  }

  static std::string merged(const std::string& text, const std::vector<SeenKey>& keys,
                            bool namesAll = false) {
    const Existing existing(text, "old.conf");
    return existing.with(
        discover::draftOf(existing.target(), keys, {.namesAll = namesAll}, existing.known()));
  }

  standin::Host host;
};

const std::string settings = "[Meters]\nTarget=localhost:50005\n";

SeenKey seen(const std::string& key, ValueCase type = ValueCase::kSfloat,
             SlotSet rate = SlotSet::Fast) {
  return {.rate = rate, .key = key, .types = {type}};
}

TEST_F(MergeTest, AppendsOnlyNewKeys) {
  const std::string text =
      "; ours\n" + settings + "[MetersFloat]\nMeter=Key=b CustomKey=mine ; !\n";
  EXPECT_EQ(merged(text, {seen("a"), seen("b"), seen("b", ValueCase::kSint)}),
            text +
                "\n; Added by gatewayctl discover:\n[MetersFloat]\nMeter=Key=a Type=fast\n"
                "\n[MetersInt]\nMeter=Key=b Type=fast\n");
  EXPECT_EQ(merged(text, {seen("b")}), text);
}

TEST_F(MergeTest, KeepsTheLineEndsOfTheFile) {
  const std::string text = "[Meters]\r\nTarget=localhost:50005\r\n[MetersFloat]\r\nMeter=Key=a";
  EXPECT_EQ(merged(text, {seen("b")}),
            text +
                "\r\n\r\n; Added by gatewayctl discover:\r\n[MetersFloat]\r\n"
                "Meter=Key=b Type=fast\r\n");
}

TEST_F(MergeTest, GivesNoNameThatASlotHas) {
  const std::string text = settings + "[MetersFloat]\nMeter=Key=x CustomKey=out_level\n";
  const auto slots = slotsOf(merged(text, {seen("out.level"), seen("out level")}, true));
  ASSERT_EQ(slots.size(), 3u);
  EXPECT_EQ(slots[1].name, "out_level_2");
  EXPECT_EQ(slots[2].name, "out_level_3");
}

TEST_F(MergeTest, AddsNothingToARateThatIsOff) {
  const Existing existing(settings + "EnableSlowMeters=false\n[MetersFloat]\nMeter=Key=a\n", "f");
  const auto draft = discover::draftOf(
      existing.target(), {seen("b", ValueCase::kSint, SlotSet::Slow)}, {}, existing.known());
  EXPECT_EQ(draft.findings[0].omitted, "the configuration switches the slow meters off");
}

TEST_F(MergeTest, RefusesAFileWithoutATarget) {
  const std::string text = "[Meters]\nEnableFastMeters=false\nEnableSlowMeters=false\n";
  try {
    const Existing existing(text, "old.conf");
    FAIL();
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(),
                 "no meter can be added to old.conf, because it has no Target in [Meters]");
  }
}

TEST_F(MergeTest, SaysWhichMetersDidNotComeWithTheirType) {
  const Existing existing(settings +
                              "[MetersFloat]\nMeter=Key=a\nMeter=Key=b\nMeter=Key=c Type=slow\n"
                              "[Engine]\nTarget=localhost:1\n[EngineInt]\nParam=Key=p\n",
                          "f");
  Sightings sightings;
  sonalith::grpc::Meter message;
  auto* item = message.add_values();
  item->set_key("a");
  item->mutable_value()->set_sfloat(1);
  item = message.add_values();
  item->set_key("b");
  item->mutable_value()->set_sint(1);
  item = message.add_values();
  item->set_key("c");
  item->mutable_value()->set_sfloat(1);
  sightings.take(SlotSet::Fast, message.SerializeAsString());
  std::vector<std::string> keys;
  for (const auto& slot : existing.silent(sightings)) keys.push_back(slot.key);
  EXPECT_EQ(keys, (std::vector<std::string>{"b", "c"}));
}

// ---- Any file and any keys ----------------------------------------------------------------------

using Random = std::mt19937;

template <class T>
const T& anyOf(const std::vector<T>& values, Random& random) {
  return values[random() % values.size()];
}

SeenKey anyKey(Random& random) {
  const std::vector<ValueCase> types{ValueCase::kSfloat, ValueCase::kSint, ValueCase::kSuint,
                                     ValueCase::kSstring, ValueCase::kSdouble};
  std::string key;
  do key += anyOf<std::string>({"a", "b ", "\"", ";", "é", "\r", "=", "level.", "\\"}, random);
  while (random() % 3 != 0);
  return seen(key, anyOf(types, random), random() % 2 == 0 ? SlotSet::Fast : SlotSet::Slow);
}

std::vector<SeenKey> anyKeys(Random& random) {
  std::vector<SeenKey> keys;
  for (auto count = random() % 20; count > 0; --count) {
    SeenKey key = anyKey(random);
    const bool isNew = std::none_of(keys.begin(), keys.end(), [&](const SeenKey& other) {
      return other.rate == key.rate && other.key == key.key;
    });
    if (isNew) keys.push_back(std::move(key));
  }
  return keys;
}

// A file that was written by hand: any order, comments, blank lines, no newline at its end.
std::string anyFile(Random& random) {
  std::string text = settings + anyOf<std::string>({"", "\n; a comment\n", "\r\n"}, random);
  for (auto count = random() % 8; count > 0; --count) {
    text += "[" + anyOf<std::string>({"MetersFloat", "MetersInt", "metersString"}, random) + "]\n";
    text += "Meter=Key=a" + std::to_string(count) +
            anyOf<std::string>({"", " Type=slow", " CustomKey=n" + std::to_string(count)}, random) +
            "\n";
  }
  if (random() % 2 == 0) text += anyOf<std::string>({"; end", "# end", "  "}, random);
  return text;
}

TEST_F(MergeTest, KeepsEverySlotOfAnyFile) {
  for (unsigned seed = 1; seed <= 500; ++seed) {
    Random random(seed);
    const std::string before = anyFile(random);
    const auto keys = anyKeys(random);
    const bool namesAll = random() % 2 == 0;
    const std::string after = merged(before, keys, namesAll);
    SCOPED_TRACE("seed " + std::to_string(seed) + "\n" + after);
    ASSERT_TRUE(after.starts_with(before));
    const auto old = slotsOf(before);
    const auto now = slotsOf(after);
    for (const auto& slot : old) {
      ASSERT_NE(std::find(now.begin(), now.end(), slot), now.end()) << slot.name;
    }
    const auto canBeWritten = [&](const SeenKey& key) {
      return key.types.front() != ValueCase::kSdouble && key.key.find('=') == std::string::npos;
    };
    ASSERT_EQ(now.size() - old.size(),
              static_cast<std::size_t>(std::count_if(keys.begin(), keys.end(), canBeWritten)));
    ASSERT_EQ(merged(after, keys, namesAll), after) << "a second time";
  }
}

}  // namespace
