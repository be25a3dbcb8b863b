// The slots that are made from the configuration's lists: names, values and descriptions as the
// host sees them, and the order in which memory is allocated and released.
#include <gtest/gtest.h>

#include <array>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "module/grpc-gateway/GatewaySlots.h"
#include "standin/Host.h"

namespace gateway {
namespace {

using enum MeterEntryType;
using Texts = std::vector<std::string>;

// A description as the host sees it. These are all of its bytes except the reserved ones, which are
// checked to be zero, and the tail, which nobody writes.
struct Described {
  std::string name;
  const void* value = nullptr;
  std::uint64_t valueSize = 0;
  std::uint32_t valueType = 0;
  const void* validator = nullptr;
  std::string description;
  std::uint32_t flags = 0;

  bool operator==(const Described&) const = default;
};

void PrintTo(const Described& slot, std::ostream* out) {
  *out << "\n  \"" << slot.name << "\" at " << slot.value << ", size " << slot.valueSize
       << ", type " << slot.valueType << ", validator " << slot.validator << ", \""
       << slot.description << "\", flags " << slot.flags;
}

// The reserved bytes of a description.
constexpr std::array<std::pair<std::size_t, std::size_t>, 7> reserved{
    {{8, 8}, {24, 8}, {40, 8}, {48, 8}, {60, 4}, {72, 8}, {80, 8}}};

Described described(const sonalith_moduleOffset& slot) {
  for (const auto& [offset, size] : reserved) {
    const std::string_view bytes(reinterpret_cast<const char*>(&slot) + offset, size);
    EXPECT_EQ(bytes, std::string(size, '\0')) << "at byte " << offset << " of " << slot.name;
  }
  return {slot.name,      slot.value,       slot.valueSize, slot.valueType,
          slot.validator, slot.description, slot.flags};
}

// The fields in which the two kinds of slot differ.
struct Kind {
  const void* validator;
  std::uint32_t flags;
};
const Kind engineKind{sonalith_moduleValidateOk, 3};
const Kind meterKind{nullptr, 0};

// One group of a table as a text, or nothing if all of it is zero.
Texts groupOf(std::uint64_t count, const void* names, const void* values, const char* type) {
  if (count == 0 && names == nullptr && values == nullptr) return {};
  return {std::to_string(count) + " " + type + (names == nullptr ? " without names" : "") +
          (values == nullptr ? " without values" : "")};
}

// All bytes of a text buffer.
std::string bytesOf(const sonalith_slotText& text) {
  return {text, sizeof(text)};
}

// A text in a buffer of 100 bytes, filled up with zeros.
std::string padded(const std::string& text) {
  return text + std::string(100 - text.size(), '\0');
}

class GatewaySlots : public testing::Test {
 protected:
  ~GatewaySlots() override { EXPECT_EQ(host_.violations(), Texts{}); }

  // A configuration without entries, for a test to fill. What it logs doesn't matter here.
  ConfigManager emptyConfig() {
    ConfigManager config("/dev/null");
    host_.clearRecords();
    return config;
  }

  void buildEngine(const ConfigManager& config) { buildEngineSlots(config, table_, &offsets_); }
  template <class T>
  void buildMeters(const std::vector<MeterEntry<T>>& entries) {
    buildMeterSlots(entries, table_, &offsets_);
  }

  std::vector<Described> slots() const {
    std::vector<Described> list;
    for (const auto& slot : host_.slotsOf(offsets_)) list.push_back(described(slot));
    return list;
  }
  Texts slotNames() const {
    Texts names;
    for (const auto& slot : host_.slotsOf(offsets_)) names.emplace_back(slot.name);
    return names;
  }

  // The groups of the table that are not all zero, each with its count.
  Texts groups() const {
    Texts all;
    for (const Texts& group :
         {groupOf(table_.stringCount, table_.stringNames, table_.stringValues, "string"),
          groupOf(table_.intCount, table_.intNames, table_.intValues, "int"),
          groupOf(table_.uintCount, table_.uintNames, table_.uintValues, "uint"),
          groupOf(table_.floatCount, table_.floatNames, table_.floatValues, "float")}) {
      all.insert(all.end(), group.begin(), group.end());
    }
    return all;
  }

  standin::Host host_;
  GatewaySlotTable table_{};
  sonalith_moduleOffsetList* offsets_ = sonalith_createModuleOffset(nullptr);
};

ConfigManager filled(ConfigManager config) {
  config.engineStrings = {{"a", "text"}, {"b", ""}};
  config.engineInts = {{"c", ""}, {"d", "number"}};
  config.engineUints = {{"e", ""}};
  config.engineFloats = {{"f", ""}, {"g", ""}};
  return config;
}

// ---- Engine slots -------------------------------------------------------------------------------

TEST_F(GatewaySlots, EngineSlotsAreDescribedCompletelyGroupByGroup) {
  buildEngine(filled(emptyConfig()));
  const auto& [validator, flags] = engineKind;
  EXPECT_EQ(
      slots(),
      (std::vector<Described>{
          {"text", &table_.stringValues[0], 100, 5, validator, "generated gateway string", flags},
          {"gateway_string_1", &table_.stringValues[1], 100, 5, validator,
           "generated gateway string", flags},
          {"gateway_int_0", &table_.intValues[0], 4, 2, validator, "generated gateway int", flags},
          {"number", &table_.intValues[1], 4, 2, validator, "generated gateway int", flags},
          {"gateway_uint_0", &table_.uintValues[0], 4, 4, validator, "generated gateway uint",
           flags},
          {"gateway_float_0", &table_.floatValues[0], 4, 3, validator, "generated gateway float",
           flags},
          {"gateway_float_1", &table_.floatValues[1], 4, 3, validator, "generated gateway float",
           flags}}));
}

// There is one allocation per array, values before names; the list grows slot by slot.
TEST_F(GatewaySlots, EngineSlotsAllocateTheirMemoryGroupByGroup) {
  buildEngine(filled(emptyConfig()));
  EXPECT_EQ(host_.journal(),
            (Texts{"calloc 2x100 #2", "calloc 2x100 #3", "addModuleOffset #1>#4 text",
                   "addModuleOffset #4>#5 gateway_string_1", "calloc 2x4 #6", "calloc 2x100 #7",
                   "addModuleOffset #5>#8 gateway_int_0", "addModuleOffset #8>#9 number",
                   "calloc 1x4 #10", "calloc 1x100 #11", "addModuleOffset #9>#12 gateway_uint_0",
                   "calloc 2x4 #13", "calloc 2x100 #14", "addModuleOffset #12>#15 gateway_float_0",
                   "addModuleOffset #15>#16 gateway_float_1"}));
}

TEST_F(GatewaySlots, EngineSlotsSetThePointersAndLeaveTheCountsAtZero) {
  buildEngine(filled(emptyConfig()));
  EXPECT_EQ(groups(), (Texts{"0 string", "0 int", "0 uint", "0 float"}));
  EXPECT_EQ(bytesOf(table_.stringNames[0]), padded("text"));
  EXPECT_EQ(bytesOf(table_.stringNames[1]), padded("gateway_string_1"));
  EXPECT_EQ(bytesOf(table_.intNames[0]), padded("gateway_int_0"));
  EXPECT_EQ(bytesOf(table_.intNames[1]), padded("number"));
  EXPECT_EQ(bytesOf(table_.uintNames[0]), padded("gateway_uint_0"));
  EXPECT_EQ(bytesOf(table_.floatNames[0]), padded("gateway_float_0"));
  EXPECT_EQ(bytesOf(table_.floatNames[1]), padded("gateway_float_1"));
}

TEST_F(GatewaySlots, EngineSlotsStartAtZero) {
  buildEngine(filled(emptyConfig()));
  EXPECT_EQ(bytesOf(table_.stringValues[0]), padded(""));
  EXPECT_EQ(bytesOf(table_.stringValues[1]), padded(""));
  EXPECT_EQ(table_.intValues[0], 0);
  EXPECT_EQ(table_.intValues[1], 0);
  EXPECT_EQ(table_.uintValues[0], 0U);
  EXPECT_EQ(table_.floatValues[0], 0.0F);
  EXPECT_EQ(table_.floatValues[1], 0.0F);
}

TEST_F(GatewaySlots, EngineSlotsIgnoreTheMeterLists) {
  ConfigManager config = emptyConfig();
  config.slowMeterInts = {{"a", "", Fast, {}}};
  config.fastMeterFloats = {{"b", "", Fast, {}}};
  buildEngine(config);
  EXPECT_EQ(groups(), Texts{});
  EXPECT_EQ(host_.journal(), Texts{});
}

TEST_F(GatewaySlots, AnEngineListFillsOnlyItsOwnGroup) {
  ConfigManager config = emptyConfig();
  config.engineUints = {{"a", ""}};
  buildEngine(config);
  EXPECT_EQ(groups(), Texts{"0 uint"});
  EXPECT_EQ(host_.journal(),
            (Texts{"calloc 1x4 #2", "calloc 1x100 #3", "addModuleOffset #1>#4 gateway_uint_0"}));
}

// ---- Meter slots --------------------------------------------------------------------------------

TEST_F(GatewaySlots, StringMetersAreDescribedCompletely) {
  buildMeters<std::string>({{"a", "text", Fast, "not ready"}, {"b", "", Slow, ""}});
  const auto& [validator, flags] = meterKind;
  EXPECT_EQ(slots(), (std::vector<Described>{{"text", &table_.stringValues[0], 100, 5, validator,
                                              "generated gateway string", flags},
                                             {"gateway_string_1", &table_.stringValues[1], 100, 5,
                                              validator, "generated gateway string", flags}}));
  EXPECT_EQ(groups(), Texts{"2 string"});
  EXPECT_EQ(bytesOf(table_.stringNames[0]), padded("text"));
  EXPECT_EQ(bytesOf(table_.stringNames[1]), padded("gateway_string_1"));
  EXPECT_EQ(bytesOf(table_.stringValues[0]), padded("not ready"));
  EXPECT_EQ(bytesOf(table_.stringValues[1]), padded(""));
  EXPECT_EQ(host_.journal(),
            (Texts{"createModuleOffset #1", "calloc 2x100 #2", "calloc 2x100 #3",
                   "addModuleOffset #1>#4 text", "addModuleOffset #4>#5 gateway_string_1"}));
}

TEST_F(GatewaySlots, IntMetersAreDescribedCompletely) {
  buildMeters<std::int32_t>({{"a", "", Fast, -7}, {"b", "number", Slow, 0}});
  const auto& [validator, flags] = meterKind;
  EXPECT_EQ(
      slots(),
      (std::vector<Described>{
          {"gateway_int_0", &table_.intValues[0], 4, 2, validator, "generated gateway int", flags},
          {"number", &table_.intValues[1], 4, 2, validator, "generated gateway int", flags}}));
  EXPECT_EQ(groups(), Texts{"2 int"});
  EXPECT_EQ(bytesOf(table_.intNames[0]), padded("gateway_int_0"));
  EXPECT_EQ(bytesOf(table_.intNames[1]), padded("number"));
  EXPECT_EQ(table_.intValues[0], -7);
  EXPECT_EQ(table_.intValues[1], 0);
  EXPECT_EQ(host_.journal(),
            (Texts{"createModuleOffset #1", "calloc 2x4 #2", "calloc 2x100 #3",
                   "addModuleOffset #1>#4 gateway_int_0", "addModuleOffset #4>#5 number"}));
}

TEST_F(GatewaySlots, UintMetersAreDescribedCompletely) {
  buildMeters<std::uint32_t>({{"a", "", Slow, 4294967295U}, {"b", "count", Fast, 1}});
  const auto& [validator, flags] = meterKind;
  EXPECT_EQ(slots(), (std::vector<Described>{{"gateway_uint_0", &table_.uintValues[0], 4, 4,
                                              validator, "generated gateway uint", flags},
                                             {"count", &table_.uintValues[1], 4, 4, validator,
                                              "generated gateway uint", flags}}));
  EXPECT_EQ(groups(), Texts{"2 uint"});
  EXPECT_EQ(bytesOf(table_.uintNames[0]), padded("gateway_uint_0"));
  EXPECT_EQ(bytesOf(table_.uintNames[1]), padded("count"));
  EXPECT_EQ(table_.uintValues[0], 4294967295U);
  EXPECT_EQ(table_.uintValues[1], 1U);
  EXPECT_EQ(host_.journal(),
            (Texts{"createModuleOffset #1", "calloc 2x4 #2", "calloc 2x100 #3",
                   "addModuleOffset #1>#4 gateway_uint_0", "addModuleOffset #4>#5 count"}));
}

TEST_F(GatewaySlots, FloatMetersAreDescribedCompletely) {
  buildMeters<float>({{"a", "", Fast, -60.5F}, {"b", "level", Slow, 0.25F}});
  const auto& [validator, flags] = meterKind;
  EXPECT_EQ(slots(), (std::vector<Described>{{"gateway_float_0", &table_.floatValues[0], 4, 3,
                                              validator, "generated gateway float", flags},
                                             {"level", &table_.floatValues[1], 4, 3, validator,
                                              "generated gateway float", flags}}));
  EXPECT_EQ(groups(), Texts{"2 float"});
  EXPECT_EQ(bytesOf(table_.floatNames[0]), padded("gateway_float_0"));
  EXPECT_EQ(bytesOf(table_.floatNames[1]), padded("level"));
  EXPECT_EQ(table_.floatValues[0], -60.5F);
  EXPECT_EQ(table_.floatValues[1], 0.25F);
  EXPECT_EQ(host_.journal(),
            (Texts{"createModuleOffset #1", "calloc 2x4 #2", "calloc 2x100 #3",
                   "addModuleOffset #1>#4 gateway_float_0", "addModuleOffset #4>#5 level"}));
}

TEST_F(GatewaySlots, TheFourTypesOfARateShareATableAndAnOffsetList) {
  buildMeters<std::string>({{"a", "", Fast, {}}});
  buildMeters<std::int32_t>({{"a", "", Fast, {}}});
  buildMeters<std::uint32_t>({{"a", "", Fast, {}}});
  buildMeters<float>({{"a", "", Fast, {}}, {"b", "", Fast, {}}});
  EXPECT_EQ(slotNames(), (Texts{"gateway_string_0", "gateway_int_0", "gateway_uint_0",
                                "gateway_float_0", "gateway_float_1"}));
  EXPECT_EQ(groups(), (Texts{"1 string", "1 int", "1 uint", "2 float"}));
}

TEST_F(GatewaySlots, EmptyListsAllocateNothingAndLeaveTheTableZero) {
  buildMeters<std::string>({});
  buildMeters<std::int32_t>({});
  buildMeters<std::uint32_t>({});
  buildMeters<float>({});
  buildEngine(emptyConfig());
  EXPECT_EQ(groups(), Texts{});
  EXPECT_EQ(slots(), std::vector<Described>{});
  EXPECT_EQ(host_.outstanding().blocks, 1U);  // the list
}

TEST_F(GatewaySlots, AMeterOfADisabledRateHasASlotWithItsDefault) {
  ConfigManager config = emptyConfig();
  config.enableSlowMeters = false;
  config.slowMeterInts = {{"a", "", Slow, 42}};
  buildMeters(config.slowMeterInts);
  EXPECT_EQ(slotNames(), Texts{"gateway_int_0"});
  EXPECT_EQ(table_.intValues[0], 42);
}

// ---- Names --------------------------------------------------------------------------------------

TEST_F(GatewaySlots, AGeneratedNameEndsWithThePositionInTheList) {
  std::vector<MeterEntry<std::int32_t>> entries(12);
  entries[3].customKey = "own";
  buildMeters(entries);
  EXPECT_EQ(slotNames(),
            (Texts{"gateway_int_0", "gateway_int_1", "gateway_int_2", "own", "gateway_int_4",
                   "gateway_int_5", "gateway_int_6", "gateway_int_7", "gateway_int_8",
                   "gateway_int_9", "gateway_int_10", "gateway_int_11"}));
}

TEST_F(GatewaySlots, AKeyInTwoListsIsNamedByItsPositionInEach) {
  const std::vector<MeterEntry<float>> slow{{"other", "", Fast, {}}, {"level", "", Fast, {}}};
  const std::vector<MeterEntry<float>> fast{{"level", "", Fast, {}}};
  buildMeters(slow);
  EXPECT_EQ(slotNames(), (Texts{"gateway_float_0", "gateway_float_1"}));
  table_ = {};
  offsets_ = sonalith_createModuleOffset(nullptr);
  buildMeters(fast);
  EXPECT_EQ(slotNames(), Texts{"gateway_float_0"});
}

TEST_F(GatewaySlots, NamesNeedNotBeUnique) {
  buildMeters<std::int32_t>({{"a", "same", Fast, 1},
                             {"b", "same", Fast, 2},
                             {"c", "gateway_int_3", Fast, 3},
                             {"d", "", Fast, 4}});
  EXPECT_EQ(slotNames(), (Texts{"same", "same", "gateway_int_3", "gateway_int_3"}));
}

TEST_F(GatewaySlots, ACustomKeyOf99BytesFillsItsBufferUpToTheTerminator) {
  const std::string longest(99, 'k');
  for (const bool terminates : {true, false}) {
    SCOPED_TRACE(terminates);
    host_.setChoices({.strncpyTerminates = terminates});
    buildMeters<std::int32_t>({{"a", longest, Fast, 0}, {"b", longest, Fast, 0}});
    EXPECT_EQ(bytesOf(table_.intNames[0]), padded(longest));
    EXPECT_EQ(bytesOf(table_.intNames[1]), padded(longest));

    ConfigManager config = emptyConfig();
    config.engineFloats = {{"a", longest}};
    buildEngine(config);
    EXPECT_EQ(bytesOf(table_.floatNames[0]), padded(longest));
  }
}

// ---- Default texts ------------------------------------------------------------------------------

TEST_F(GatewaySlots, TheHostsCopyCutsALongDefaultText) {
  const std::string text = std::string(98, 'x') + "yz-and-more";
  const std::vector<MeterEntry<std::string>> entries{{"a", "", Fast, text},
                                                     {"b", "", Fast, "next"}};
  host_.setChoices({.strncpyTerminates = true});
  buildMeters(entries);
  EXPECT_EQ(bytesOf(table_.stringValues[0]), padded(text.substr(0, 99)));
  EXPECT_EQ(bytesOf(table_.stringValues[1]), padded("next"));

  host_.setChoices({.strncpyTerminates = false});
  buildMeters(entries);
  EXPECT_EQ(bytesOf(table_.stringValues[0]), text.substr(0, 100));
  EXPECT_EQ(bytesOf(table_.stringValues[1]), padded("next"));
}

TEST_F(GatewaySlots, ADefaultTextOf99BytesIsKeptWhole) {
  const std::string text(99, 'x');
  buildMeters<std::string>({{"a", "", Fast, text}});
  EXPECT_EQ(bytesOf(table_.stringValues[0]), padded(text));
}

// ---- Order within a slot ------------------------------------------------------------------------

// A failure of the host shows what has been done by then.
TEST_F(GatewaySlots, AMetersCountAndValueAreSetBeforeItsName) {
  host_.failCall(standin::Operation::Strncpy, 2);
  EXPECT_THROW(buildMeters<std::string>({{"a", "name", Fast, "value"}}), standin::Fault);
  EXPECT_EQ(groups(), Texts{"1 string"});
  EXPECT_EQ(bytesOf(table_.stringValues[0]), padded("value"));
  EXPECT_EQ(bytesOf(table_.stringNames[0]), padded(""));
  EXPECT_EQ(slots(), std::vector<Described>{});
}

TEST_F(GatewaySlots, ASlotIsAddedOnlyWhenItsNameAndValueAreSet) {
  host_.failCall(standin::Operation::AddModuleOffset, 2);
  EXPECT_THROW(
      buildMeters<std::int32_t>({{"a", "", Fast, 1}, {"b", "", Fast, 2}, {"c", "", Fast, 3}}),
      standin::Fault);
  EXPECT_EQ(slotNames(), Texts{"gateway_int_0"});
  EXPECT_EQ(table_.intValues[1], 2);
  EXPECT_EQ(bytesOf(table_.intNames[1]), padded("gateway_int_1"));
  EXPECT_EQ(table_.intValues[2], 0);
  EXPECT_EQ(bytesOf(table_.intNames[2]), padded(""));
}

// ---- Release ------------------------------------------------------------------------------------

TEST_F(GatewaySlots, ReleaseGoesGroupByGroupAndNamesBeforeValues) {
  buildEngine(filled(emptyConfig()));
  host_.clearRecords();
  releaseSlots(table_);
  // The values of a group have the number before that of their names.
  EXPECT_EQ(host_.journal(), (Texts{"free #3", "free #2", "free #7", "free #6", "free #11",
                                    "free #10", "free #14", "free #13"}));
  EXPECT_EQ(host_.outstanding().blocks, 1U);  // the list
}

// Shows that the numbers in the test above are those of the right arrays.
TEST_F(GatewaySlots, ValuesAreAllocatedBeforeNames) {
  buildEngine(filled(emptyConfig()));
  host_.clearRecords();
  sonalith_free(table_.stringValues);
  sonalith_free(table_.stringNames);
  sonalith_free(table_.intValues);
  sonalith_free(table_.intNames);
  sonalith_free(table_.uintValues);
  sonalith_free(table_.uintNames);
  sonalith_free(table_.floatValues);
  sonalith_free(table_.floatNames);
  EXPECT_EQ(host_.journal(), (Texts{"free #2", "free #3", "free #6", "free #7", "free #10",
                                    "free #11", "free #13", "free #14"}));
}

TEST_F(GatewaySlots, AMeterTableIsReleasedInTheSameOrder) {
  buildMeters<float>({{"a", "", Fast, {}}});
  buildMeters<std::uint32_t>({{"a", "", Fast, {}}});
  buildMeters<std::int32_t>({{"a", "", Fast, {}}});
  buildMeters<std::string>({{"a", "", Fast, {}}});
  host_.clearRecords();
  releaseSlots(table_);
  EXPECT_EQ(host_.journal(), (Texts{"free #12", "free #11", "free #9", "free #8", "free #6",
                                    "free #5", "free #3", "free #2"}));
  EXPECT_EQ(host_.outstanding().blocks, 1U);
}

TEST_F(GatewaySlots, NothingIsReleasedForEmptyGroups) {
  buildMeters<std::uint32_t>({{"a", "", Fast, {}}});
  host_.clearRecords();
  releaseSlots(table_);
  releaseSlots(GatewaySlotTable{});
  EXPECT_EQ(host_.journal(), (Texts{"free #3", "free #2"}));
}

}  // namespace
}  // namespace gateway
