// What a configuration holds, and which line of a file sets what.
#include <algorithm>
#include <functional>
#include <type_traits>

#include "tests/module/grpc-gateway/config/config_fixture.h"

namespace gateway {
namespace {

using enum MeterEntryType;

class ConfigModel : public ConfigTest {};

// The numbers match those on the wire.
static_assert(static_cast<std::uint32_t>(Slow) == 0);
static_assert(static_cast<std::uint32_t>(Fast) == 1);
static_assert(sizeof(MeterEntryType) == 4);

// Plain records: no bases, no virtual operations.
static_assert(std::is_standard_layout_v<ConfigManager>);
static_assert(!std::is_polymorphic_v<ConfigManager>);

static_assert(std::is_same_v<decltype(MeterEntry<std::string>::defaultValue), std::string>);
static_assert(std::is_same_v<decltype(MeterEntry<std::int32_t>::defaultValue), std::int32_t>);
static_assert(std::is_same_v<decltype(MeterEntry<std::uint32_t>::defaultValue), std::uint32_t>);
static_assert(std::is_same_v<decltype(MeterEntry<float>::defaultValue), float>);

template <class T>
Meter<T> freshMeter() {
  const MeterEntry<T> entry;
  return {entry.key, entry.customKey, entry.type, entry.defaultValue};
}

TEST_F(ConfigModel, ANewMeterEntryIsFastAndOtherwiseEmpty) {
  EXPECT_EQ(freshMeter<std::string>(), (Meter<std::string>{"", "", Fast, ""}));
  EXPECT_EQ(freshMeter<std::int32_t>(), (Meter<std::int32_t>{"", "", Fast, 0}));
  EXPECT_EQ(freshMeter<std::uint32_t>(), (Meter<std::uint32_t>{"", "", Fast, 0}));
  EXPECT_EQ(freshMeter<float>(), (Meter<float>{"", "", Fast, 0}));
}

TEST_F(ConfigModel, FieldsAreInTheirDocumentedOrder) {
  const ConfigManager config("/dev/null");
  const std::vector<const void*> fields{&config.metersTarget,
                                        &config.enableFastMeters,
                                        &config.enableSlowMeters,
                                        &config.engineTarget,
                                        &config.slowMeterStrings,
                                        &config.slowMeterInts,
                                        &config.slowMeterUints,
                                        &config.slowMeterFloats,
                                        &config.fastMeterStrings,
                                        &config.fastMeterInts,
                                        &config.fastMeterUints,
                                        &config.fastMeterFloats,
                                        &config.engineStrings,
                                        &config.engineInts,
                                        &config.engineUints,
                                        &config.engineFloats,
                                        &config.valid};
  EXPECT_TRUE(std::is_sorted(fields.begin(), fields.end(), std::less<const void*>()));

  const MeterEntry<std::int32_t> meter;
  const std::vector<const void*> meterFields{&meter.key, &meter.customKey, &meter.type,
                                             &meter.defaultValue};
  EXPECT_TRUE(std::is_sorted(meterFields.begin(), meterFields.end(), std::less<const void*>()));

  const EngineEntry param;
  EXPECT_LT(static_cast<const void*>(&param.key), static_cast<const void*>(&param.customKey));
}

TEST_F(ConfigModel, SectionAndRateSelectOneOfTwelveLists) {
  EXPECT_EQ(
      read(std::string(targets) + "[MetersString]\nMeter=Key=a Type=slow\nMeter=Key=b Type=fast\n"
                                  "[MetersInt]\nMeter=Key=c Type=slow\nMeter=Key=d Type=fast\n"
                                  "[MetersUint]\nMeter=Key=e Type=slow\nMeter=Key=f Type=fast\n"
                                  "[MetersFloat]\nMeter=Key=g Type=slow\nMeter=Key=h Type=fast\n"
                                  "[EngineString]\nParam=Key=i\n"
                                  "[EngineInt]\nParam=Key=j\n"
                                  "[EngineUint]\nParam=Key=k\n"
                                  "[EngineFloat]\nParam=Key=l\n"),
      sound({.slowMeterStrings = {{.key = "a", .type = Slow}},
             .slowMeterInts = {{.key = "c", .type = Slow}},
             .slowMeterUints = {{.key = "e", .type = Slow}},
             .slowMeterFloats = {{.key = "g", .type = Slow}},
             .fastMeterStrings = {{.key = "b"}},
             .fastMeterInts = {{.key = "d"}},
             .fastMeterUints = {{.key = "f"}},
             .fastMeterFloats = {{.key = "h"}},
             .engineStrings = {{.key = "i"}},
             .engineInts = {{.key = "j"}},
             .engineUints = {{.key = "k"}},
             .engineFloats = {{.key = "l"}}}));
  EXPECT_EQ(log(), Lines{});
}

TEST_F(ConfigModel, TargetsAndSwitchesAreReadFromTheirSections) {
  EXPECT_EQ(read("[Meters]\nTarget=localhost:50005\nEnableFastMeters=true\n"
                 "EnableSlowMeters=false\n[Engine]\nTarget=localhost:50006\n"),
            (Settings{.metersTarget = "localhost:50005",
                      .enableFastMeters = true,
                      .enableSlowMeters = false,
                      .engineTarget = "localhost:50006"}));
  EXPECT_EQ(read("[Meters]\nTarget=m\nEnableFastMeters=false\nEnableSlowMeters=true\n"),
            (Settings{.metersTarget = "m", .enableFastMeters = false, .enableSlowMeters = true}));
}

TEST_F(ConfigModel, AMeterWithoutATypeIsFastInEverySection) {
  EXPECT_EQ(read(std::string(targets) + "[MetersString]\nMeter=Key=a\n[MetersInt]\nMeter=Key=b\n"
                                        "[MetersUint]\nMeter=Key=c\n[MetersFloat]\nMeter=Key=d\n"),
            sound({.fastMeterStrings = {{.key = "a"}},
                   .fastMeterInts = {{.key = "b"}},
                   .fastMeterUints = {{.key = "c"}},
                   .fastMeterFloats = {{.key = "d"}}}));
}

// The order of a list is the order of its slots.
TEST_F(ConfigModel, EntriesKeepTheOrderOfTheirLines) {
  EXPECT_EQ(read(std::string(targets) +
                 "[MetersInt]\nMeter=Key=z\nMeter=Key=y Type=slow\nMeter=Key=b\nMeter=Key=m\n"
                 "[EngineInt]\nParam=Key=q\nParam=Key=p\n"
                 "[MetersInt]\nMeter=Key=a\nMeter=Key=x Type=slow\n"),
            sound({.slowMeterInts = {{.key = "y", .type = Slow}, {.key = "x", .type = Slow}},
                   .fastMeterInts = {{.key = "z"}, {.key = "b"}, {.key = "m"}, {.key = "a"}},
                   .engineInts = {{.key = "q"}, {.key = "p"}}}));
}

TEST_F(ConfigModel, BothEntriesOfARepeatedKeyAreKeptAndTheFileIsRefused) {
  EXPECT_EQ(read(std::string(targets) +
                 "[MetersInt]\nMeter=Key=a DefaultValue=1\nMeter=Key=a DefaultValue=2\n"),
            unsound({.fastMeterInts = {{.key = "a", .defaultValue = 1},
                                       {.key = "a", .defaultValue = 2}}}));
}

TEST_F(ConfigModel, ABadLineDoesNotTakeASlotPosition) {
  EXPECT_EQ(
      read(std::string(targets) + "[MetersFloat]\nMeter=Key=a\nMeter=Key=b Bogus=1\nMeter=Key=c\n"
                                  "[EngineFloat]\nParam=Key=d\nParam=Key=e Bogus=1\nParam=Key=f\n"),
      unsound({.fastMeterFloats = {{.key = "a"}, {.key = "c"}},
               .engineFloats = {{.key = "d"}, {.key = "f"}}}));
}

TEST_F(ConfigModel, AMeterMayHaveARateThatIsSwitchedOff) {
  EXPECT_EQ(read("[Meters]\nTarget=m\nEnableSlowMeters=false\n"
                 "[MetersInt]\nMeter=Key=a Type=slow\n"),
            (Settings{.metersTarget = "m",
                      .enableSlowMeters = false,
                      .slowMeterInts = {{.key = "a", .type = Slow}}}));
  EXPECT_EQ(log(), Lines{});
}

TEST_F(ConfigModel, AGatewayWithoutMetersSwitchesBothRatesOff) {
  EXPECT_EQ(read("[Meters]\nEnableFastMeters=false\nEnableSlowMeters=false\n"
                 "[Engine]\nTarget=e\n[EngineInt]\nParam=Key=a\n"),
            (Settings{.enableFastMeters = false,
                      .enableSlowMeters = false,
                      .engineTarget = "e",
                      .engineInts = {{.key = "a"}}}));
  EXPECT_EQ(log(), Lines{});
}

TEST_F(ConfigModel, AFileWithoutMeterSettingsIsRefusedBecauseTheSwitchesAreOn) {
  EXPECT_EQ(read("[Engine]\nTarget=e\n[EngineInt]\nParam=Key=a\n"),
            (Settings{.engineTarget = "e", .engineInts = {{.key = "a"}}, .valid = false}));
}

TEST_F(ConfigModel, AGatewayWithoutParametersNeedsNoEngineTarget) {
  EXPECT_EQ(read("[Meters]\nTarget=m\n[MetersInt]\nMeter=Key=a\n"),
            (Settings{.metersTarget = "m", .fastMeterInts = {{.key = "a"}}}));
  EXPECT_EQ(log(), Lines{});
}

}  // namespace
}  // namespace gateway
