// A pass over random bytes always ends and keeps its promises.

#include <gtest/gtest.h>
#include <ini.h>

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <random>
#include <string>
#include <string_view>

#include "ini/conformance.h"
#include "tests/ini/printing.h"

namespace ini::conformance {
namespace {

constexpr unsigned seed = 20240229;
constexpr int files = 3000;

// Half of the bytes are special in the syntax, so that the files exercise every rule.
class RandomFiles {
 public:
  std::string next() {
    std::string bytes(size(), '\0');
    for (char& byte : bytes) byte = nextByte();
    return bytes;
  }

 private:
  // Mostly short: hardly any long file would be good.
  std::size_t size() {
    return byte_(generator_) < 192 ? byte_(generator_) % 40 : longSize_(generator_);
  }

  char nextByte() {
    using std::string_view_literals::operator""sv;
    constexpr std::string_view known = "=:;#[]\n\n\n \t\r\v\"\\\0\xEF\xBB\xBF"sv;
    const unsigned any = byte_(generator_);
    return any < 128 ? known[any % known.size()] : static_cast<char>(byte_(generator_));
  }

  std::mt19937 generator_{seed};
  std::uniform_int_distribution<std::size_t> longSize_{0, 4000};
  std::uniform_int_distribution<unsigned> byte_{0, 255};
};

bool isTrimmed(const std::string& text) {
  const auto blank = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
  return text.empty() || (!blank(text.front()) && !blank(text.back()));
}

std::ptrdiff_t mostLines(const std::string& bytes) {
  return std::count(bytes.begin(), bytes.end(), '\n') +
         static_cast<std::ptrdiff_t>(bytes.size() / 1023) + 1;
}

void expectPromisesKept(const std::string& bytes, const Reading& reading) {
  EXPECT_GE(reading.result, 0);
  EXPECT_LE(reading.result, mostLines(bytes));
  for (const Pair& pair : reading.pairs) {
    EXPECT_LE(pair.section.size(), 49U) << describe(pair);
    EXPECT_LE(pair.name.size() + pair.value.size(), 1023U + 49U) << describe(pair);
    EXPECT_TRUE(isTrimmed(pair.value)) << describe(pair);
    EXPECT_EQ((pair.section + pair.name + pair.value).find('\n'), std::string::npos);
  }
}

TEST(IniRobustness, RandomBytesGiveAResultAndSoundPairs) {
  SCOPED_TRACE("seed " + std::to_string(seed));
  RandomFiles random;
  std::size_t good = 0;
  std::size_t bad = 0;
  std::size_t pairs = 0;
  for (int i = 0; i < files && !testing::Test::HasFailure(); ++i) {
    SCOPED_TRACE("file " + std::to_string(i));
    const std::string bytes = random.next();
    const Reading reading = readBytes(ini_parse, bytes);
    expectPromisesKept(bytes, reading);
    ++(reading.result == 0 ? good : bad);
    pairs += reading.pairs.size();
  }
  EXPECT_GT(good, 0U);
  EXPECT_GT(bad, 0U);
  EXPECT_GT(pairs, 0U);
}

// Binary noise without special bytes is a single word, which is bad in each chunk.
TEST(IniRobustness, AMegabyteWithoutASeparatorIsBadFromItsFirstLine) {
  const Reading expected{{}, 1};
  EXPECT_EQ(readBytes(ini_parse, std::string(1 << 20, '\x80')), expected);
}

}  // namespace
}  // namespace ini::conformance
