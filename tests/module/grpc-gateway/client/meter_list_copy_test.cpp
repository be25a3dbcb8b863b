// The search in a private copy of a list finds what a plain search in the list finds.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "module/grpc-gateway/KeyTags.h"
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
// shorter.
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

// Keys that differ in few places.
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

// ---- Families of names ----------------------------------------------------------------------

// Names as sites make them: a few parts, some of which count or vary from name to name.
class Family {
 public:
  explicit Family(unsigned seed) : random_(seed) {
    for (std::size_t i = 1 + upTo(4); i > 0; --i)
      parts_.push_back({static_cast<Kind>(upTo(7)), word()});
    parts_.insert(parts_.begin() + static_cast<std::ptrdiff_t>(upTo(parts_.size())), {Number, ""});
  }

  std::string name(unsigned i) {
    std::string name;
    for (const Part& part : parts_) name += textOf(part, i);
    return name;
  }

 private:
  enum Kind { Word, Number, Padded, Hexadecimal, Pair, Random, Long, Letters };
  struct Part {
    Kind kind;
    std::string word;
  };

  std::size_t upTo(std::size_t limit) {
    return std::uniform_int_distribution<std::size_t>(0, limit)(random_);
  }

  std::string word() {
    static const std::string words[] = {"out", ".level", "/",     "Lautstärke ",
                                        "_",   "室",     "peak-", " "};
    return words[upTo(std::size(words) - 1)];
  }

  static std::string hexadecimal(unsigned number) {
    std::array<char, 9> text;
    std::snprintf(text.data(), text.size(), "%08x", number);
    return text.data();
  }

  std::string textOf(const Part& part, unsigned i) {
    switch (part.kind) {
      case Word:
        return part.word;
      case Number:
        return std::to_string(i);
      case Padded:
        return std::to_string(100'000 + i).substr(1);
      case Hexadecimal:
        return hexadecimal(i * 2654435761u);
      case Pair:
        return std::to_string(i / 32) + part.word + std::to_string(i % 32);
      case Random:
        return hexadecimal(static_cast<unsigned>(random_())) + "-" + hexadecimal(i);
      case Long:
        return std::string(50, 'x') + part.word;
      case Letters:
        return {static_cast<char>('a' + i % 26), static_cast<char>('A' + i / 26 % 26)};
    }
    return "";
  }

  std::mt19937 random_;
  std::vector<Part> parts_;
};

class Families : public ::testing::TestWithParam<unsigned> {};

constexpr unsigned manyNames = 3000;

TEST_P(Families, FindAgreesWithAMap) {
  Family family(GetParam());
  std::vector<std::string> keys;
  std::map<std::string, std::size_t> positions;
  for (unsigned i = 0; i < manyNames; ++i) {
    keys.push_back(family.name(i));
    positions.try_emplace(keys.back(), i);
  }
  const MeterListCopy copy(entriesOf(keys));
  for (const std::string& key : keys) ASSERT_EQ(copy.find(key, keys.size()), positions[key]) << key;
  for (unsigned i = manyNames; i < manyNames + 300; ++i) {
    const std::string key = family.name(i);
    if (positions.contains(key)) continue;
    ASSERT_EQ(copy.find(key, keys.size()), MeterListCopy::npos) << key;
  }
}

// Where many keys have the same tag, every search compares many keys.
void expectTagsToTellApart(const std::set<std::string>& names) {
  std::map<gateway::KeyTag, unsigned> counts;
  unsigned equalPairs = 0;
  for (const std::string& name : names) equalPairs += counts[gateway::tagOf(name)]++;
  // Chance alone makes one pair in 65,536.
  const double expected =
      static_cast<double>(names.size()) * static_cast<double>(names.size()) / 2 / 65536;
  EXPECT_LT(equalPairs, 3 * expected + 10) << names.size() << " names like " << *names.begin();
}

TEST_P(Families, TagsTellTheNamesApart) {
  Family family(GetParam());
  std::set<std::string> names;
  for (unsigned i = 0; i < manyNames; ++i) names.insert(family.name(i));
  expectTagsToTellApart(names);
}

INSTANTIATE_TEST_SUITE_P(Seeds, Families, ::testing::Range(1u, 101u));

// ---- Tags ---------------------------------------------------------------------------------------

TEST(KeyTags, DependOnEveryBitAndOnTheLength) {
  for (std::size_t size = 1; size <= 300; ++size) {
    const std::string key(size, 'k');
    unsigned same = 0;
    for (std::size_t bit = 0; bit < size * 8; ++bit) {
      std::string other = key;
      other[bit / 8] = static_cast<char>(other[bit / 8] ^ 1 << bit % 8);
      same += gateway::tagOf(other) == gateway::tagOf(key) ? 1 : 0;
    }
    EXPECT_LE(same, 2u) << size;
    EXPECT_NE(gateway::tagOf(key), gateway::tagOf(key + "k")) << size;
  }
}

TEST(KeyTags, DependOnTheOrderOfWords) {
  for (const std::size_t size : {8, 16, 24}) {
    std::set<std::string> names;
    std::string order = "abcdefg";
    do {
      std::string name;
      for (const char letter : order) name.append(size, letter);
      names.insert(name);
    } while (std::ranges::next_permutation(order).found);
    expectTagsToTellApart(names);
  }
}

// The portable scan is compared with a plain loop, and all others with it.
std::vector<gateway::TagScan> scansOfThisProcessor() {
  const auto all = gateway::tagScans();
  std::vector<gateway::TagScan> scans(all.begin(), all.end());
  std::erase(scans, nullptr);
  return scans;
}

class TagScans : public ::testing::TestWithParam<gateway::TagScan> {};

TEST_P(TagScans, FindTheFirstEqualTag) {
  std::mt19937 random(1);
  for (std::size_t count = 0; count <= 300; ++count) {
    const std::size_t padded =
        (count + gateway::tagsPerStep - 1) / gateway::tagsPerStep * gateway::tagsPerStep;
    // On the heap and of the exact size, so that the address sanitizer notices reads past it.
    std::vector<gateway::KeyTag> tags(padded);
    const unsigned kinds = 1 + static_cast<unsigned>(random()) % 200;
    for (auto& tag : tags) tag = static_cast<gateway::KeyTag>(random() % kinds * 327);
    for (std::size_t from = 0; from <= count; from += 1 + random() % 5) {
      const auto tag = static_cast<gateway::KeyTag>(random() % kinds * 327);
      const auto expected = std::find(tags.begin() + static_cast<std::ptrdiff_t>(from),
                                      tags.begin() + static_cast<std::ptrdiff_t>(count), tag);
      const auto position = static_cast<std::size_t>(expected - tags.begin());
      const std::size_t found = GetParam()(tags.data(), from, count, tag);
      if (position < count) {
        ASSERT_EQ(found, position) << "from " << from << " of " << count;
      } else {
        ASSERT_GE(found, count) << "from " << from;
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(, TagScans, ::testing::ValuesIn(scansOfThisProcessor()));

#ifdef __x86_64__
TEST(KeyTags, HaveAScanForEachSizeOfVectorsOfTheProcessor) {
  const auto scans = gateway::tagScans();
  EXPECT_EQ(scans[1] != nullptr, __builtin_cpu_supports("avx2") != 0);
  EXPECT_EQ(scans[2] != nullptr, __builtin_cpu_supports("avx512bw") != 0);
}
#endif

TEST(KeyTags, AreScannedByTheWidestVectors) {
  EXPECT_NE(gateway::tagScans().front(), nullptr);
  EXPECT_EQ(gateway::scanTags, scansOfThisProcessor().back());
}

}  // namespace
