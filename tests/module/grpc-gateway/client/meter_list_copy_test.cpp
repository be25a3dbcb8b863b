// The search in a private copy of a list finds what a plain search in the list finds.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "module/grpc-gateway/MeterListCopy.h"

namespace {

using gateway::MeterEntry;
using gateway::MeterListCopy;
using Entries = std::vector<MeterEntry<std::int32_t>>;

Entries entriesOf(const std::vector<std::string>& keys) {
  Entries entries;
  for (const std::string& key : keys) {
    MeterEntry<std::int32_t>& entry = entries.emplace_back();
    entry.key = key;
    entry.customKey = "name of " + key;
  }
  return entries;
}

std::size_t plainFind(const Entries& entries, const std::string& key, std::size_t bound) {
  for (std::size_t i = 0; i < entries.size() && i < bound; ++i) {
    if (entries[i].key == key) return i;
  }
  return MeterListCopy::npos;
}

TEST(MeterListCopy, ACopyOfAnEmptyListFindsNothing) {
  const MeterListCopy copy{Entries{}};
  EXPECT_EQ(copy.size(), 0u);
  EXPECT_EQ(copy.find("a", 10), MeterListCopy::npos);
  EXPECT_EQ(copy.find("", 10), MeterListCopy::npos);
}

TEST(MeterListCopy, ACopyOutlivesItsList) {
  Entries entries = entriesOf({"first", std::string(200, 'x'), "last"});
  const MeterListCopy copy(entries);
  for (auto& entry : entries) entry.key.assign(entry.key.size(), '?');
  entries.clear();
  EXPECT_EQ(copy.find("first", 3), 0u);
  EXPECT_EQ(copy.find(std::string(200, 'x'), 3), 1u);
  EXPECT_EQ(copy.find("last", 3), 2u);
}

TEST(MeterListCopy, FindReturnsTheFirstOfEqualKeysBelowTheBound) {
  const MeterListCopy copy(entriesOf({"a", "b", "a"}));
  EXPECT_EQ(copy.size(), 3u);
  EXPECT_GT(MeterListCopy::npos, copy.size()) << "npos is no position";
  EXPECT_EQ(copy.find("a", 3), 0u);
  EXPECT_EQ(copy.find("b", 2), 1u);
  EXPECT_EQ(copy.find("b", 1), MeterListCopy::npos);
  EXPECT_EQ(copy.find("a", 0), MeterListCopy::npos);
}

TEST(MeterListCopy, FindComparesEveryByte) {
  const MeterListCopy copy(entriesOf({"out.level", std::string("a\0b", 3)}));
  EXPECT_EQ(copy.find("Out.level", 2), MeterListCopy::npos);
  EXPECT_EQ(copy.find("out.leve", 2), MeterListCopy::npos);
  EXPECT_EQ(copy.find("out.levels", 2), MeterListCopy::npos);
  EXPECT_EQ(copy.find("out.lewel", 2), MeterListCopy::npos);
  EXPECT_EQ(copy.find(std::string_view("a\0b", 3), 2), 1u);
  EXPECT_EQ(copy.find(std::string_view("a\0c", 3), 2), MeterListCopy::npos);
  EXPECT_EQ(copy.find("a", 2), MeterListCopy::npos);
}

TEST(MeterListCopy, FindReadsNoByteAfterTheSoughtKey) {
  for (std::size_t size = 1; size <= 8; ++size) {
    const std::string key(size, 'a');
    const std::string longer = key + "o";
    const MeterListCopy copy(entriesOf({key}));
    EXPECT_EQ(copy.find(std::string_view(longer).substr(0, size), 1), 0u) << key;
  }
}

template <class T>
std::size_t findInListOf(T defaultValue) {
  MeterEntry<T> entry;
  entry.key = "key";
  entry.defaultValue = defaultValue;
  return MeterListCopy(std::vector<MeterEntry<T>>{entry}).find("key", 1);
}

TEST(MeterListCopy, EntriesOfEveryValueTypeCanBeCopied) {
  EXPECT_EQ(findInListOf<std::string>("text"), 0u);
  EXPECT_EQ(findInListOf<std::int32_t>(-1), 0u);
  EXPECT_EQ(findInListOf<std::uint32_t>(1), 0u);
  EXPECT_EQ(findInListOf<float>(0.5f), 0u);
}

// A key at the very end of its memory block, so that the address sanitizer notices reads past it.
// The distance from the beginning of the block sets its alignment.
class KeyAtItsEnd {
 public:
  KeyAtItsEnd(const std::string& key, std::size_t distance)
      : bytes_(std::string(distance, '?') + key), distance_(distance) {
    memory_ = std::make_unique<char[]>(bytes_.size());
    std::copy(bytes_.begin(), bytes_.end(), memory_.get());
  }

  std::string_view view() const { return {memory_.get() + distance_, bytes_.size() - distance_}; }

 private:
  std::string bytes_;
  std::size_t distance_;
  std::unique_ptr<char[]> memory_;
};

// Keys of one length that differ in one byte at changing places, and keys one byte longer or
// shorter. Some long keys do not differ in any byte that the scan compares first.
std::vector<std::string> nearlyEqualKeys(std::size_t size) {
  std::vector<std::string> keys;
  const std::string base(size, 'k');
  for (std::size_t i = 0; i < size; i += 1 + size / 60) {
    keys.push_back(base);
    keys.back()[i] = 'K';
  }
  keys.push_back(base + "k");
  if (size > 0) keys.push_back(base.substr(1));
  return keys;
}

TEST(MeterListCopy, FindAgreesWithAPlainSearchForKeysOfEveryLengthAndAlignment) {
  constexpr std::size_t alignments = 16;
  for (std::size_t size = 0; size <= 300; ++size) {
    const std::vector<std::string> keys = nearlyEqualKeys(size);
    const Entries entries = entriesOf(keys);
    const MeterListCopy copy(entries);
    for (std::size_t distance = 0; distance < alignments; ++distance) {
      for (const std::string& key : {keys[(size + distance * 5) % keys.size()], keys.front(),
                                     keys.back(), std::string(size, 'k')}) {
        const KeyAtItsEnd sought(key, distance);
        ASSERT_EQ(copy.find(sought.view(), keys.size()), plainFind(entries, key, keys.size()))
            << "size " << size << ", distance " << distance << ", key " << key;
      }
    }
  }
}

TEST(MeterListCopy, FindAgreesWithAPlainSearchInListsOfEveryLength) {
  for (std::size_t count = 0; count <= 300; ++count) {
    std::vector<std::string> keys;
    for (std::size_t i = 0; i < count; ++i) keys.push_back("level." + std::to_string(i));
    const Entries entries = entriesOf(keys);
    const MeterListCopy copy(entries);
    keys.push_back("level." + std::to_string(count));
    for (std::size_t i = 0; i <= count; ++i) {
      ASSERT_EQ(copy.find(keys[i], count), i < count ? i : MeterListCopy::npos) << count;
      ASSERT_EQ(copy.find(keys[i], i), MeterListCopy::npos) << count;
    }
  }
}

// Short keys that differ in few places. Most agree in the bytes that the search compares first, so
// it has to compare the rest.
class RandomLists : public ::testing::TestWithParam<unsigned> {};

TEST_P(RandomLists, FindAgreesWithAPlainSearch) {
  std::mt19937 random(GetParam());
  const auto upTo = [&](std::size_t limit) {
    return std::uniform_int_distribution<std::size_t>(0, limit)(random);
  };
  const auto makeKey = [&](std::size_t size) {
    std::string key(size, "aq"[upTo(1)]);
    for (std::size_t change = upTo(3); change > 0 && size > 0; --change) {
      key[upTo(size - 1)] = "aAq1\xc3"[upTo(4)];
    }
    return key;
  };
  int found = 0;
  int missed = 0;
  for (int round = 0; round < 400; ++round) {
    const std::size_t size = upTo(40);
    std::vector<std::string> keys;
    for (std::size_t i = upTo(70); i > 0; --i)
      keys.push_back(makeKey(size == 0 ? upTo(300) : size));
    const Entries entries = entriesOf(keys);
    const MeterListCopy copy(entries);
    for (int lookup = 0; lookup < 30; ++lookup) {
      const bool known = !keys.empty() && upTo(1) == 0;
      const std::string key = known ? keys[upTo(keys.size() - 1)] : makeKey(size);
      const std::size_t bound = upTo(keys.size() + 20);
      const std::size_t expected = plainFind(entries, key, bound);
      ASSERT_EQ(copy.find(key, bound), expected) << "seed " << GetParam() << ", key " << key;
      ++(expected == MeterListCopy::npos ? missed : found);
    }
  }
  EXPECT_GT(found, 1000);
  EXPECT_GT(missed, 1000);
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomLists, ::testing::Range(1u, 9u));

}  // namespace
