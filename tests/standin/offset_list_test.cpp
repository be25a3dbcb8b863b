// Lists of slots: unless chosen otherwise, they move at every append. Using an old pointer is a
// violation.
#include <cstring>
#include <stdexcept>

#include "tests/standin/with_host.h"

using standin::Outstanding;

namespace {

// A slot with memory of its own, which it describes as a module would.
struct IntSlot {
  explicit IntSlot(const char* text) { std::strcpy(name, text); }

  sonalith_moduleOffset description() {
    sonalith_moduleOffset slot = {};
    slot.name = name;
    slot.value = &value;
    slot.valueSize = 4;
    slot.valueType = SONALITH_SLOT_INT;
    slot.description = "an int";
    return slot;
  }

  sonalith_slotText name;
  std::int32_t value = 0;
};

class OffsetList : public WithHost {
 protected:
  OffsetList() : list(sonalith_createModuleOffset(nullptr)) {}

  void add(const sonalith_moduleOffset& slot) { sonalith_addModuleOffset(&list, &slot); }

  Texts names() {
    Texts result;
    for (const auto& slot : host.slotsOf(list)) result.push_back(slot.name);
    return result;
  }

  sonalith_moduleOffsetList* list;
  IntSlot a{"a"};
  IntSlot b{"b"};
};

}  // namespace

TEST_F(OffsetList, ANewListIsEmpty) {
  EXPECT_EQ(names(), Texts{});
  EXPECT_EQ(host.outstanding().blocks, 1U);
  EXPECT_EQ(host.violations(), Texts{});
}

TEST_F(OffsetList, AListMovesAtEveryAppend) {
  std::vector<sonalith_moduleOffsetList*> places = {list};
  for (int i = 0; i < 50; ++i) {
    add(a.description());
    for (const auto* place : places) ASSERT_NE(list, place) << "after " << i << " appends";
    places.push_back(list);
  }
  EXPECT_EQ(names(), Texts(50, "a"));
  EXPECT_EQ(host.outstanding().blocks, 1U);
}

TEST_F(OffsetList, AListMovesOnlyToGrowIfChosen) {
  host.setChoices({.listsAlwaysMove = false});
  int moves = 0;
  for (int i = 0; i < 1000; ++i) {
    const auto* const before = list;
    add(a.description());
    if (list != before) ++moves;
  }
  EXPECT_LE(moves, 11);  // doubles its room each time
  EXPECT_EQ(names(), Texts(1000, "a"));
  EXPECT_EQ(host.violations(), Texts{});
}

TEST_F(OffsetList, SlotsStayInTheOrderOfTheirAppends) {
  add(b.description());
  add(a.description());
  add(b.description());
  EXPECT_EQ(names(), (Texts{"b", "a", "b"}));
}

TEST_F(OffsetList, AnAppendCopiesTheDescription) {
  sonalith_moduleOffset slot = a.description();
  slot.validator = sonalith_moduleValidateOk;
  slot.flags = 3;
  const sonalith_moduleOffset given = slot;
  add(slot);
  std::memset(&slot, 0xFF, sizeof slot);
  const auto slots = host.slotsOf(list);
  ASSERT_EQ(slots.size(), 1U);
  EXPECT_EQ(std::memcmp(&slots[0], &given, offsetof(sonalith_moduleOffset, tail)), 0);
}

TEST_F(OffsetList, TheTailOfADescriptionMayHoldAnything) {
  sonalith_moduleOffset slot = a.description();
  slot.tail = 0xFFFFFFFF;
  add(slot);
  EXPECT_EQ(names(), Texts{"a"});
  EXPECT_EQ(host.violations(), Texts{});
}

TEST_F(OffsetList, TheJournalShowsEachMove) {
  add(a.description());
  add(b.description());
  sonalith_free(list);
  EXPECT_EQ(host.journal(), (Texts{"createModuleOffset #1", "addModuleOffset #1>#2 a",
                                   "addModuleOffset #2>#3 b", "free #3"}));
}

TEST_F(OffsetList, FreeReleasesAList) {
  add(a.description());
  EXPECT_EQ(host.outstanding(), (Outstanding{1, 112, 0, 0}));
  sonalith_free(list);
  EXPECT_EQ(host.outstanding(), Outstanding{});
  EXPECT_EQ(host.violations(), Texts{});
}

TEST_F(OffsetList, AppendingToAListThatHasMovedIsAViolation) {
  auto* stale = list;
  add(a.description());
  const sonalith_moduleOffset slot = b.description();
  sonalith_addModuleOffset(&stale, &slot);
  EXPECT_EQ(names(), Texts{"a"});
  EXPECT_EQ(host.violations(),
            Texts{"sonalith_addModuleOffset: block #1 of 8 bytes has already been released"});
}

TEST_F(OffsetList, ReleasingAListThatHasMovedIsAViolation) {
  auto* stale = list;
  add(a.description());
  sonalith_free(stale);
  EXPECT_EQ(host.violations(),
            Texts{"sonalith_free: block #1 of 8 bytes has already been released"});
  EXPECT_EQ(host.outstanding().blocks, 1U);
}

TEST_F(OffsetList, ReadingAListThatHasMovedThrows) {
  auto* stale = list;
  add(a.description());
  EXPECT_THROW(host.slotsOf(stale), std::logic_error);
}

TEST_F(OffsetList, AnOrdinaryBlockIsNoList) {
  void* block = sonalith_calloc(1, 104);
  auto* wrong = static_cast<sonalith_moduleOffsetList*>(block);
  const sonalith_moduleOffset slot = a.description();
  sonalith_addModuleOffset(&wrong, &slot);
  EXPECT_EQ(host.violations(),
            Texts{"sonalith_addModuleOffset: block #2 of 104 bytes is not an offset list"});
  EXPECT_EQ(wrong, block);
  EXPECT_THROW(host.slotsOf(wrong), std::logic_error);
}

TEST_F(OffsetList, CreatingAListWithAnArgumentIsAViolation) {
  EXPECT_NE(sonalith_createModuleOffset(&list), nullptr);
  EXPECT_EQ(host.violations(), Texts{"sonalith_createModuleOffset: the argument is not null"});
}

TEST_F(OffsetList, ReservedBytesThatAreNotZeroAreViolations) {
  std::vector<sonalith_moduleOffset> slots(7, a.description());
  slots[0].reserved8 = 1;
  slots[1].reserved24 = 1;
  slots[2].reserved40 = 1;
  slots[3].reserved48 = 1;
  slots[4].reserved60 = 1;
  slots[5].reserved72 = 1;
  slots[6].reserved80 = 1;
  for (const auto& slot : slots) add(slot);
  EXPECT_EQ(names(), Texts{});
  EXPECT_EQ(host.violations(),
            Texts(7, "sonalith_addModuleOffset: slot a has reserved bytes that are not zero"));
}

TEST_F(OffsetList, EachValueTypeIsAcceptedWithItsSize) {
  sonalith_moduleOffset slot = a.description();
  for (const auto& [type, size] :
       std::vector<std::pair<std::uint32_t, std::uint64_t>>{{2, 4}, {3, 4}, {4, 4}, {5, 100}}) {
    slot.valueType = type;
    slot.valueSize = size;
    add(slot);
  }
  EXPECT_EQ(names(), Texts(4, "a"));
  EXPECT_EQ(host.violations(), Texts{});
}

TEST_F(OffsetList, AValueTypeWithAnotherSizeIsAViolation) {
  sonalith_moduleOffset slot = a.description();
  for (const auto& [type, size] : std::vector<std::pair<std::uint32_t, std::uint64_t>>{
           {2, 8}, {3, 0}, {4, 100}, {5, 4}, {1, 4}, {6, 0}}) {
    slot.valueType = type;
    slot.valueSize = size;
    add(slot);
  }
  EXPECT_EQ(names(), Texts{});
  EXPECT_EQ(host.violations(),
            (Texts{"sonalith_addModuleOffset: slot a has value type 2 and size 8",
                   "sonalith_addModuleOffset: slot a has value type 3 and size 0",
                   "sonalith_addModuleOffset: slot a has value type 4 and size 100",
                   "sonalith_addModuleOffset: slot a has value type 5 and size 4",
                   "sonalith_addModuleOffset: slot a has value type 1 and size 4",
                   "sonalith_addModuleOffset: slot a has value type 6 and size 0"}));
}

TEST_F(OffsetList, NullArgumentsAreViolations) {
  std::vector<sonalith_moduleOffset> slots(3, a.description());
  slots[0].name = nullptr;
  slots[1].value = nullptr;
  slots[2].description = nullptr;
  for (const auto& slot : slots) add(slot);
  sonalith_moduleOffsetList* none = nullptr;
  sonalith_addModuleOffset(&none, &slots[0]);
  sonalith_addModuleOffset(nullptr, &slots[0]);
  sonalith_addModuleOffset(&list, nullptr);
  EXPECT_EQ(names(), Texts{});
  EXPECT_EQ(host.violations(), Texts(6, "sonalith_addModuleOffset: null argument"));
}
