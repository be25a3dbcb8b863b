// The keys that benchmarks and tests of the search are fed with.
#include "bench/KeyFamilies.h"

#include <gtest/gtest.h>

#include <iomanip>
#include <sstream>

namespace {

using bench::KeyFamily;
using Keys = std::vector<std::string>;

const KeyFamily& familyOf(std::string_view name) {
  const auto isNamed = [&](const KeyFamily& family) { return name == family.name; };
  return *std::find_if(bench::keyFamilies.begin(), bench::keyFamilies.end(), isNamed);
}

// The number of a key whose template begins with it. The first one depends on the seed.
unsigned long numberOf(const std::string& key) {
  return std::stoul(key);
}

TEST(KeyFamilies, GiveAsManyDifferentKeysAsTheLargestMessageHas) {
  for (const KeyFamily& family : bench::keyFamilies) {
    for (std::uint64_t seed = 1; seed <= 3; ++seed) {
      ASSERT_NO_THROW(bench::keysOf(family, seed, 4096)) << family.name << ", seed " << seed;
    }
  }
}

TEST(KeyFamilies, RefuseATemplateThatRepeatsAKey) {
  EXPECT_THROW(bench::keysOf({"test", "{w}.{n%8}"}, 1, 9), std::logic_error);
  EXPECT_THROW(bench::keysOf({"test", "{y}"}, 1, 1), std::logic_error);
}

TEST(KeyFamilies, DependOnTheSeedAlone) {
  for (const char* name : {"number-end", "words", "hash", "uuid", "long-sides"}) {
    const KeyFamily& family = familyOf(name);
    EXPECT_EQ(bench::keysOf(family, 5, 100), bench::keysOf(family, 5, 100)) << name;
    EXPECT_NE(bench::keysOf(family, 5, 100), bench::keysOf(family, 6, 100)) << name;
  }
}

TEST(KeyFamilies, GiveTheBeginningOfTheSameKeysForASmallerCount) {
  Keys keys = bench::keysOf(familyOf("words"), 1, 100);
  keys.resize(10);
  EXPECT_EQ(bench::keysOf(familyOf("words"), 1, 10), keys);
}

TEST(KeyFamilies, ExpandNumbersInAnyBaseAndWidth) {
  const std::string key = bench::keysOf({"test", "{n} {n6} {x4} {X1*171} {z} {b9}"}, 1, 1)[0];
  const unsigned long n = numberOf(key);
  std::ostringstream expected;
  expected << n << ' ' << std::setfill('0') << std::setw(6) << n << ' ' << std::hex << std::setw(4)
           << n << ' ' << std::uppercase << n * 171 << ' ';
  EXPECT_TRUE(key.starts_with(expected.str())) << key;
  std::istringstream rest(key.substr(expected.str().size()));
  std::string base36, base2;
  rest >> base36 >> base2;
  EXPECT_EQ(std::stoul(base36, nullptr, 36), n);
  EXPECT_EQ(std::stoul(base2, nullptr, 2), n);
  EXPECT_EQ(base2.size(), 9u);
}

TEST(KeyFamilies, ApplyOperationsFromLeftToRight) {
  for (const std::string& key : bench::keysOf({"test", "{n} {n/16} {n%16} {n/16%4*10}"}, 1, 100)) {
    const unsigned long n = numberOf(key);
    std::ostringstream expected;
    expected << n << ' ' << n / 16 << ' ' << n % 16 << ' ' << n / 16 % 4 * 10;
    EXPECT_EQ(key, expected.str());
  }
}

TEST(KeyFamilies, HaveTheSameWordsAndFillersInAllKeys) {
  const Keys keys = bench::keysOf({"test", "{n4} {w} {f17}"}, 1, 50);
  const std::string common = keys[0].substr(4);
  EXPECT_EQ(common.size() - common.rfind(' '), 18u);
  for (const std::string& key : keys) EXPECT_EQ(key.substr(4), common);
}

TEST(KeyFamilies, HaveRandomDigitsAndLettersInEitherCaseInEachKey) {
  const Keys keys = bench::keysOf({"test", "{r20}-{d10}-{c6}"}, 1, 2);
  for (const std::string& key : keys) {
    EXPECT_EQ(key.find_first_not_of("0123456789abcdef"), 20u);
    EXPECT_EQ(key.find_first_not_of("0123456789", 21), 31u);
    EXPECT_EQ(key.size(), 38u);
  }
  EXPECT_NE(keys[0].substr(0, 20), keys[1].substr(0, 20));
  EXPECT_NE(keys[0].substr(21, 10), keys[1].substr(21, 10));
  EXPECT_NE(keys[0].substr(32), keys[1].substr(32));
}

}  // namespace
