// A lean host serves modules like any other host, but keeps no records.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "standin/Host.h"
#include "standin/KeyValueList.h"

namespace {

standin::Choices lean() {
  standin::Choices choices;
  choices.isLean = true;
  return choices;
}

class LeanHost : public testing::Test {
 protected:
  standin::Host host{lean()};
};

TEST_F(LeanHost, OffsetListsKeepTheirSlotsAsTheyGrow) {
  sonalith_slotText name = "slot";
  std::vector<std::int32_t> values(200);
  sonalith_moduleOffsetList* list = sonalith_createModuleOffset(nullptr);
  for (std::int32_t& value : values) {
    sonalith_moduleOffset slot = {};
    slot.name = name;
    slot.value = &value;
    slot.valueSize = 4;
    slot.valueType = SONALITH_SLOT_INT;
    slot.description = "an int";
    sonalith_addModuleOffset(&list, &slot);
  }
  const auto slots = host.slotsOf(list);
  ASSERT_EQ(slots.size(), values.size());
  for (std::size_t i = 0; i < slots.size(); ++i) EXPECT_EQ(slots[i].value, &values[i]);
  sonalith_free(list);
  EXPECT_EQ(host.outstanding(), standin::Outstanding{});
  EXPECT_EQ(host.violations(), std::vector<std::string>{});
}

TEST_F(LeanHost, ListsTextCopiesAndMemoryWork) {
  sonalith_keyValueList* list = sonalith_keyValueListNew();
  EXPECT_NE(sonalith_keyValueListIsEmpty(list), 0);
  sonalith_keyValueListAddSF(list, "gain", 0.5f);
  EXPECT_EQ(list->items().size(), 1u);
  sonalith_keyValueListDestroy(list);

  auto* const text = static_cast<char*>(sonalith_calloc(4, 1));
  sonalith_strncpy(text, "whole", 4);
  EXPECT_STREQ(text, "who");
  sonalith_free(text);
}

TEST_F(LeanHost, ThereAreNoRecordsAndNoPlannedFaults) {
  host.failCall(standin::Operation::Calloc);
  sonalith_free(sonalith_calloc(1, 1));
  sonalith_log(SONALITH_LOG_TRACE, "file", 1, 1, "line");
  EXPECT_EQ(host.journal(), std::vector<std::string>{});
  EXPECT_TRUE(host.log().empty());
}

// The thread that logs stays in the operation until the sink returns.
TEST(LeanHostThatTimesOperations, AddsUpTheTimeSpentInThem) {
  using Clock = std::chrono::steady_clock;
  standin::Choices choices = lean();
  choices.timesOperations = true;
  standin::Host host(choices);
  Clock::duration inSink{};
  host.setLogSink([&](const standin::LogLine&) {
    const auto begin = Clock::now();
    while (inSink == Clock::duration::zero()) inSink = Clock::now() - begin;
  });
  const auto begin = Clock::now();
  sonalith_log(SONALITH_LOG_TRACE, "file", 1, 1, "line");
  const auto whole = Clock::now() - begin;
  EXPECT_GE(host.timeInOperations(), inSink);
  EXPECT_LE(host.timeInOperations(), whole);
}

TEST_F(LeanHost, TimesNoOperationsUnlessAsked) {
  sonalith_free(sonalith_calloc(1, 1));
  EXPECT_EQ(host.timeInOperations(), std::chrono::nanoseconds::zero());
}

}  // namespace
