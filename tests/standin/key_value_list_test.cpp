// Key/value lists: those that a test fills for a module, and those that a module creates.
#include "standin/KeyValueList.h"

#include <bit>
#include <cstring>

#include "tests/standin/with_host.h"

using standin::KeyValueList;
using standin::Outstanding;

namespace {

class KeyValue : public WithHost {
 protected:
  // The items of an iteration, each as "key type value".
  static Texts shown(const KeyValueList& list) {
    Texts result;
    const auto note = [](const sonalith_keyValueItem* item, void* user) {
      static_cast<Texts*>(user)->push_back(describe(*item));
      return std::int32_t{0};
    };
    sonalith_keyValueListForEach(&list, note, &result);
    return result;
  }

  // The result of a search: "(null)" for a null text, "(none)" if the key is not found.
  static std::string found(const KeyValueList& list, const char* key) {
    const char* value = "untouched";
    if (sonalith_keyValueListGetS(&list, key, &value) == 0) return value ? value : "(null)";
    EXPECT_STREQ(value, "untouched");
    return "(none)";
  }

 private:
  static std::string describe(const sonalith_keyValueItem& item) {
    const std::string head =
        (item.key ? item.key : "(null)") + (" " + std::to_string(item.type)) + " ";
    const auto& value = item.value;
    switch (item.type) {
      case SONALITH_ITEM_UINT:
        return head + std::to_string(value.asUint);
      case SONALITH_ITEM_INT:
        return head + std::to_string(value.asInt);
      case SONALITH_ITEM_FLOAT:
        return head + std::to_string(value.asFloat);
      case SONALITH_ITEM_STRING:
        return head + (value.asString ? value.asString : "(null)");
      case SONALITH_ITEM_UINT_ARRAY:
        return head + elements(value.asUintArray, item.count);
      case SONALITH_ITEM_INT_ARRAY:
        return head + elements(value.asIntArray, item.count);
      case SONALITH_ITEM_FLOAT_ARRAY:
        return head + elements(value.asFloatArray, item.count);
      case SONALITH_ITEM_DOUBLE:
        return head + std::to_string(value.asDouble);
      default:
        return head + std::to_string(std::bit_cast<std::uint64_t>(value));
    }
  }

  template <typename Number>
  static std::string elements(const Number* numbers, std::uint64_t count) {
    std::string text = "[";
    for (std::uint64_t i = 0; i < count; ++i) text += std::to_string(numbers[i]) + ",";
    return text + "]";
  }
};

std::uint64_t bitsOf(const sonalith_keyValueItem& item) {
  return std::bit_cast<std::uint64_t>(item.value);
}

}  // namespace

TEST_F(KeyValue, AListHoldsItemsOfAllEightTypes) {
  KeyValueList list;
  list.addUint("u", 4294967295U)
      .addInt("i", -2147483647)
      .addFloat("f", 0.5F)
      .addString("s", "text")
      .addUintArray("us", {1, 4294967295U})
      .addIntArray("is", {-1, 2, -3})
      .addFloatArray("fs", {1.5F})
      .addDouble("d", 0.25);
  EXPECT_EQ(shown(list),
            (Texts{"u 0 4294967295", "i 1 -2147483647", "f 2 0.500000", "s 3 text",
                   "us 4 [1,4294967295,]", "is 5 [-1,2,-3,]", "fs 6 [1.500000,]", "d 7 0.250000"}));
}

TEST_F(KeyValue, AListHoldsItemsOfUnknownTypes) {
  sonalith_itemValue value;
  value.asDouble = std::bit_cast<double>(std::uint64_t{77});
  KeyValueList list;
  list.addOther("first", 8, value).addOther("last", 4294967295U, value);
  EXPECT_EQ(shown(list), (Texts{"first 8 77", "last 4294967295 77"}));
}

TEST_F(KeyValue, AListHoldsEmptyArrays) {
  KeyValueList list;
  list.addUintArray("us", {}).addIntArray("is", {}).addFloatArray("fs", {});
  EXPECT_EQ(shown(list), (Texts{"us 4 []", "is 5 []", "fs 6 []"}));
}

TEST_F(KeyValue, AListHoldsNullKeysAndTexts) {
  KeyValueList list;
  list.addString("s", nullptr).addString(nullptr, "text").addInt(nullptr, 1);
  EXPECT_EQ(shown(list), (Texts{"s 3 (null)", "(null) 3 text", "(null) 1 1"}));
}

TEST_F(KeyValue, AListOwnsWhatItsItemsPointTo) {
  KeyValueList list;
  for (int i = 0; i < 100; ++i) {
    std::string text = "a text that is too long to lie in the string object " + std::to_string(i);
    list.addString(text.c_str(), text.c_str());
    list.addIntArray("is", std::vector<std::int32_t>(20, i));
  }
  const auto items = shown(list);
  const std::string text = "a text that is too long to lie in the string object 0";
  EXPECT_EQ(items.at(0), text + " 3 " + text);
  EXPECT_EQ(items.at(1), "is 5 [0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,]");
}

TEST_F(KeyValue, FieldsThatModulesMayNotReadHoldAPattern) {
  KeyValueList list;
  list.addUint("u", 1).addInt("i", -1).addFloat("f", 1.0F).addIntArray("is", {1});
  const auto& items = list.items();
  EXPECT_EQ(bitsOf(items[0]), 0xA5A5A5A500000001U);
  EXPECT_EQ(bitsOf(items[1]), 0xA5A5A5A5FFFFFFFFU);
  EXPECT_EQ(bitsOf(items[2]), 0xA5A5A5A53F800000U);
  for (const auto& item : items) {
    EXPECT_EQ(item.reserved8, 0xA5A5A5A5A5A5A5A5U);
    EXPECT_EQ(item.reserved20, 0xA5A5A5A5U);
    EXPECT_EQ(item.count, item.type == SONALITH_ITEM_INT_ARRAY ? 1 : 0xA5A5A5A5A5A5A5A5U);
  }
}

TEST_F(KeyValue, AModulesListIsEmptyAtFirst) {
  auto* list = sonalith_keyValueListNew();
  EXPECT_NE(sonalith_keyValueListIsEmpty(list), 0);
  sonalith_keyValueListAddSI32(list, "i", 1);
  EXPECT_EQ(sonalith_keyValueListIsEmpty(list), 0);
}

TEST_F(KeyValue, AModuleAddsItemsOfFourTypes) {
  auto* list = sonalith_keyValueListNew();
  sonalith_keyValueListAddSS(list, "s", "text");
  sonalith_keyValueListAddSI32(list, "i", -5);
  sonalith_keyValueListAddSU32(list, "u", 4000000000U);
  sonalith_keyValueListAddSF(list, "f", 0.5F);
  sonalith_keyValueListAddSS(list, "null", nullptr);
  EXPECT_EQ(shown(*list),
            (Texts{"s 3 text", "i 1 -5", "u 0 4000000000", "f 2 0.500000", "null 3 (null)"}));
}

TEST_F(KeyValue, AModulesListCopiesKeysAndTexts) {
  auto* list = sonalith_keyValueListNew();
  char key[] = "key";
  char text[] = "text";
  sonalith_keyValueListAddSS(list, key, text);
  std::memset(key, 'x', 3);
  std::memset(text, 'x', 4);
  EXPECT_EQ(shown(*list), Texts{"key 3 text"});
}

TEST_F(KeyValue, AModulesListIsOutstandingUntilItIsDestroyed) {
  auto* first = sonalith_keyValueListNew();
  auto* second = sonalith_keyValueListNew();
  EXPECT_EQ(host.outstanding(), (Outstanding{0, 0, 2, 0}));
  sonalith_keyValueListDestroy(first);
  EXPECT_EQ(host.outstanding(), (Outstanding{0, 0, 1, 0}));
  sonalith_keyValueListDestroy(second);
  EXPECT_EQ(host.outstanding(), Outstanding{});
  EXPECT_EQ(host.violations(), Texts{});
}

TEST_F(KeyValue, DestroyingAListTwiceOrTheHostsOwnIsAViolation) {
  auto* list = sonalith_keyValueListNew();
  sonalith_keyValueListDestroy(list);
  sonalith_keyValueListDestroy(list);
  KeyValueList hosts;
  sonalith_keyValueListDestroy(&hosts);
  EXPECT_EQ(host.violations(),
            Texts(2, "sonalith_keyValueListDestroy: not a list that the module holds"));
}

TEST_F(KeyValue, ASearchReturnsTheTextOfTheFirstItemWithTheKey) {
  KeyValueList list;
  list.addString("key", "first").addString("key", "second").addString("other", "third");
  EXPECT_EQ(found(list, "key"), "first");
  EXPECT_EQ(found(list, "other"), "third");
}

TEST_F(KeyValue, ASearchFindsNullAndEmptyTexts) {
  KeyValueList list;
  list.addString("null", nullptr).addString("empty", "");
  EXPECT_EQ(found(list, "null"), "(null)");
  EXPECT_EQ(found(list, "empty"), "");
}

TEST_F(KeyValue, ASearchReturnsTheListsOwnText) {
  KeyValueList list;
  list.addString("key", "text");
  const char* value = nullptr;
  sonalith_keyValueListGetS(&list, "key", &value);
  EXPECT_EQ(value, list.items()[0].value.asString);
}

TEST_F(KeyValue, AFailedSearchReturnsNullIfTheChoicesSaySo) {
  host.setChoices({.missedTextIsNull = true});
  const KeyValueList list;
  const char* value = "untouched";
  EXPECT_NE(sonalith_keyValueListGetS(&list, "key", &value), 0);
  EXPECT_EQ(value, nullptr);
}

TEST_F(KeyValue, ASearchFailsWithoutATextUnderTheExactKey) {
  KeyValueList list;
  EXPECT_EQ(found(list, "key"), "(none)");
  list.addString("key2", "longer").addString("ke", "shorter").addString("KEY", "capitals");
  list.addString(nullptr, "null").addInt("key", 1);
  EXPECT_EQ(found(list, "key"), "(none)");
}

TEST_F(KeyValue, AnIterationContinuesAfterAResultOfOneByDefault) {
  KeyValueList list;
  list.addInt("a", 1).addInt("b", 2).addInt("c", 3);
  int calls = 0;
  const auto refuse = [](const sonalith_keyValueItem*, void* user) {
    ++*static_cast<int*>(user);
    return std::int32_t{1};
  };
  sonalith_keyValueListForEach(&list, refuse, &calls);
  EXPECT_EQ(calls, 3);
}

TEST_F(KeyValue, AnIterationStopsAtAResultOfOneIfTheChoicesSaySo) {
  host.setChoices({.iterationStopsAtOne = true});
  KeyValueList list;
  list.addInt("a", 0).addInt("b", 1).addInt("c", 0);
  Texts keys;
  const auto refuseB = [](const sonalith_keyValueItem* item, void* user) {
    static_cast<Texts*>(user)->push_back(item->key);
    return item->value.asInt;
  };
  sonalith_keyValueListForEach(&list, refuseB, &keys);
  EXPECT_EQ(keys, (Texts{"a", "b"}));
}

TEST_F(KeyValue, TheCallbackOfAnIterationMayAddToListsAndLog) {
  KeyValueList list;
  list.addInt("a", 1).addInt("b", 2);
  auto* matched = sonalith_keyValueListNew();
  const auto pass = [](const sonalith_keyValueItem* item, void* user) {
    sonalith_log(1, "file", 1, 1, "passing %s", item->key);
    auto* target = static_cast<sonalith_keyValueList*>(user);
    sonalith_keyValueListAddSI32(target, item->key, item->value.asInt);
    return std::int32_t{0};
  };
  sonalith_keyValueListForEach(&list, pass, matched);
  EXPECT_EQ(shown(*matched), (Texts{"a 1 1", "b 1 2"}));
  EXPECT_EQ(host.journal(), (Texts{"log 1 passing a", "log 1 passing b"}));
}

TEST_F(KeyValue, AnIterationShowsTheItemsThatWereThereAtItsBeginning) {
  KeyValueList list;
  list.addInt("a", 1).addInt("b", 2);
  const auto addMore = [](const sonalith_keyValueItem* item, void* user) {
    auto* same = static_cast<sonalith_keyValueList*>(user);
    for (int i = 0; i < 100; ++i) sonalith_keyValueListAddSI32(same, "more", i);
    EXPECT_EQ(std::string(item->key).size(), 1U);
    return std::int32_t{0};
  };
  sonalith_keyValueListForEach(&list, addMore, &list);
  EXPECT_EQ(list.items().size(), 202U);
}

TEST_F(KeyValue, NullArgumentsAreViolations) {
  KeyValueList list;
  const char* value = nullptr;
  const auto ignore = [](const sonalith_keyValueItem*, void*) { return std::int32_t{0}; };
  EXPECT_NE(sonalith_keyValueListIsEmpty(nullptr), 0);
  EXPECT_NE(sonalith_keyValueListGetS(nullptr, "key", &value), 0);
  EXPECT_NE(sonalith_keyValueListGetS(&list, nullptr, &value), 0);
  EXPECT_NE(sonalith_keyValueListGetS(&list, "key", nullptr), 0);
  sonalith_keyValueListForEach(nullptr, ignore, nullptr);
  sonalith_keyValueListForEach(&list, nullptr, nullptr);
  sonalith_keyValueListDestroy(nullptr);
  EXPECT_EQ(host.violations(), (Texts{"sonalith_keyValueListIsEmpty: null argument",
                                      "sonalith_keyValueListGetS: null argument",
                                      "sonalith_keyValueListGetS: null argument",
                                      "sonalith_keyValueListGetS: null argument",
                                      "sonalith_keyValueListForEach: null argument",
                                      "sonalith_keyValueListForEach: null argument",
                                      "sonalith_keyValueListDestroy: null argument"}));
}

TEST_F(KeyValue, AddingToANullListOrUnderANullKeyIsAViolation) {
  KeyValueList list;
  sonalith_keyValueListAddSS(nullptr, "key", "text");
  sonalith_keyValueListAddSI32(nullptr, "key", 1);
  sonalith_keyValueListAddSU32(nullptr, "key", 1);
  sonalith_keyValueListAddSF(nullptr, "key", 1);
  sonalith_keyValueListAddSS(&list, nullptr, "text");
  sonalith_keyValueListAddSI32(&list, nullptr, 1);
  sonalith_keyValueListAddSU32(&list, nullptr, 1);
  sonalith_keyValueListAddSF(&list, nullptr, 1);
  EXPECT_EQ(shown(list), Texts{});
  EXPECT_EQ(host.violations(), Texts(8, "sonalith_keyValueListAdd: null argument"));
}
