// Copying and comparing texts touches all of their bytes and no others.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "module/grpc-gateway/EngineListCopy.h"
#include "module/grpc-gateway/TextBlock.h"

namespace {

constexpr std::size_t longest = 300;
constexpr std::size_t alignments = 16;

std::string textOf(std::size_t size) {
  std::string text(size, '\0');
  for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>(1 + i * 7 % 255);
  return text;
}

// A text at the very end of its memory block, so that the address sanitizer notices accesses past
// it.
struct Bytes {
  Bytes(const std::string& text, std::size_t distance) : memory(new char[distance + text.size()]) {
    begin = memory.get() + distance;
    std::copy(text.begin(), text.end(), begin);
  }
  std::unique_ptr<char[]> memory;
  char* begin;
};

TEST(TextBlock, CopyTextWritesEveryByteAndNothingElse) {
  for (std::size_t size = 0; size <= longest; ++size) {
    for (std::size_t distance = 0; distance < alignments; ++distance) {
      const Bytes source(textOf(size), distance);
      std::string target(size + 2 * alignments, '#');
      gateway::copyText(target.data() + distance, source.begin, size);
      std::string expected(size + 2 * alignments, '#');
      expected.replace(distance, size, textOf(size));
      ASSERT_EQ(target, expected) << size << " bytes at " << distance;
    }
  }
}

TEST(TextBlock, SameTextComparesEveryByteAndNothingElse) {
  for (std::size_t size = 0; size <= longest; ++size) {
    for (std::size_t distance = 0; distance < alignments; ++distance) {
      const Bytes one(textOf(size), distance);
      const Bytes other(textOf(size), alignments - distance);
      ASSERT_TRUE(gateway::sameText(one.begin, other.begin, size)) << size;
      const std::size_t step = distance == 0 ? 1 : 1 + size / 8;
      for (std::size_t i = distance % step; i < size; i += step) {
        other.begin[i] ^= 0x20;
        ASSERT_FALSE(gateway::sameText(one.begin, other.begin, size)) << size << ", byte " << i;
        other.begin[i] ^= 0x20;
      }
    }
  }
}

TEST(EngineListCopy, ACopyHoldsKeysAndNamesOfEveryLengthAndOutlivesItsSource) {
  std::vector<gateway::EngineEntry> entries;
  for (std::size_t size = 0; size < 100; ++size) {
    entries.push_back({textOf(size + 1), textOf(99 - size)});
  }
  const std::vector<gateway::EngineEntry> source = entries;
  auto packed = std::make_unique<gateway::EngineListCopy>(entries);
  for (gateway::EngineEntry& entry : entries) entry = {"gone", "gone"};
  const gateway::EngineListCopy copy(*packed);
  packed.reset();
  ASSERT_EQ(copy.size(), source.size());
  for (std::size_t i = 0; i < source.size(); ++i) {
    EXPECT_EQ(copy.key(i), source[i].key);
    EXPECT_EQ(copy.hasCustomKey(i), !source[i].customKey.empty());
    EXPECT_TRUE(copy.customKeyIs(i, source[i].customKey));
    EXPECT_FALSE(copy.customKeyIs(i, source[i].customKey + "x"));
    EXPECT_FALSE(copy.customKeyIs(i, "x" + source[i].customKey));
  }
}

}  // namespace
