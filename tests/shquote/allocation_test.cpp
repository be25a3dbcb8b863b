// How the functions use the heap, and what they do when an allocation fails. The linker redirects
// this program's calls of malloc, free and operator new to the functions below.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "shquote/shquote.h"

namespace {

// A block that the functions have allocated. A guard follows the requested bytes. Neither contains
// zeros.
struct Block {
  static constexpr std::size_t guardSize = 16;
  static constexpr char filling = 0x5a;

  char* memory = nullptr;
  std::size_t size = 0;

  bool isWhole() const {
    const char* guard = memory + size;
    return std::ranges::all_of(guard, guard + guardSize, [](char c) { return c == filling; });
  }
};

// What a test observes of the heap while it watches.
struct Heap {
  bool watched = false;
  int requests = 0;
  int failing = 0;  // number of the request that fails, counted from 1; 0 for none
  int live = 0;     // blocks allocated and not released
  int overrun = 0;  // blocks released with a broken guard
  std::array<Block, 2> blocks{};

  bool grants() {
    if (!watched) return true;
    ++requests;
    if (requests == failing) return false;
    ++live;
    return true;
  }
  void gives(void* memory, std::size_t size) {
    std::memset(memory, Block::filling, size + Block::guardSize);
    auto* const unused = std::ranges::find(blocks, nullptr, &Block::memory);
    if (unused != blocks.end()) *unused = {static_cast<char*>(memory), size};
  }
  void takesBack(const void* memory) {
    if (!watched || memory == nullptr) return;
    --live;
    auto* const block = std::ranges::find(blocks, memory, &Block::memory);
    if (block == blocks.end()) return;
    if (!block->isWhole()) ++overrun;
    *block = {};
  }
};

Heap& heap() {
  static Heap instance;
  return instance;
}

}  // namespace

extern "C" {
void* __real_malloc(std::size_t size);
void* __real__Znwm(std::size_t size);
void __real_free(void* memory);
void* __wrap_malloc(std::size_t size);
void* __wrap__Znwm(std::size_t size);
void __wrap_free(void* memory);

void* __wrap_malloc(std::size_t size) {
  if (!heap().grants()) return nullptr;
  if (!heap().watched) return __real_malloc(size);
  void* const memory = __real_malloc(size + Block::guardSize);
  heap().gives(memory, size);
  return memory;
}

void* __wrap__Znwm(std::size_t size) {
  if (!heap().grants()) throw std::bad_alloc();
  return __real__Znwm(size);
}

void __wrap_free(void* memory) {
  heap().takesBack(memory);
  __real_free(memory);
}
}

namespace {

class Allocation : public testing::Test {
 protected:
  ~Allocation() override { heap() = Heap(); }

  // Splits `text` and watches the heap, which refuses request number `failing`.
  int split(const std::string& text, int failing = 0) {
    heap() = Heap{.watched = true, .failing = failing};
    const int code = c_shquote_parse_argv(&words, &count, text.data(), text.size());
    heap().watched = false;
    return code;
  }

  void releaseWords() {
    heap().watched = true;
    std::free(words);
    heap().watched = false;
  }

  void expectNothingStored() const {
    EXPECT_EQ(words, nullptr);
    EXPECT_EQ(count, 77U);
  }

  char** words = nullptr;
  std::size_t count = 77;
};

}  // namespace

TEST_F(Allocation, ParseArgvMakesTwoAllocationsHoweverManyWordsThereAre) {
  std::string text;
  for (std::size_t expected : {0U, 1U, 2U, 1000U}) {
    while (text.size() < 2 * expected) text += "a ";
    ASSERT_EQ(split(text), 0);
    EXPECT_EQ(count, expected);
    EXPECT_EQ(heap().requests, 2) << "for " << expected << " words";
    EXPECT_EQ(heap().live, 1) << "for " << expected << " words";
    releaseWords();
    EXPECT_EQ(heap().live, 0) << "for " << expected << " words";
  }
}

// Each text makes the words that need the most room for its length.
TEST_F(Allocation, ParseArgvFillsItsBlocksAndWritesNothingPastThem) {
  for (const char* text : {"", "a", "a b", "'' ''", "abcdefg", "a b c d e f g"}) {
    ASSERT_EQ(split(text), 0) << text;
    std::string seen;
    for (char** word = words; *word != nullptr; ++word) seen += std::string(*word) + "|";
    std::string expected = *text == '\0' ? "" : text + std::string("|");
    std::replace(expected.begin(), expected.end(), ' ', '|');
    expected.erase(std::remove(expected.begin(), expected.end(), '\''), expected.end());
    EXPECT_EQ(seen, expected);
    releaseWords();
    EXPECT_EQ(heap().overrun, 0) << text;
  }
}

TEST_F(Allocation, ParseArgvReportsAFailedScratchAllocation) {
  EXPECT_EQ(split("a b", 1), -12);
  EXPECT_EQ(heap().requests, 1);
  EXPECT_EQ(heap().live, 0);
  expectNothingStored();
}

TEST_F(Allocation, ParseArgvReleasesTheScratchBufferWhenTheBlockFails) {
  EXPECT_EQ(split("a b", 2), -12);
  EXPECT_EQ(heap().requests, 2);
  EXPECT_EQ(heap().live, 0);
  expectNothingStored();
}

TEST_F(Allocation, ParseArgvReleasesTheScratchBufferWhenAQuoteIsOpen) {
  EXPECT_EQ(split("a 'b"), SHQUOTE_ERR_UNTERMINATED);
  EXPECT_EQ(heap().requests, 1);
  EXPECT_EQ(heap().live, 0);
  expectNothingStored();
}

TEST_F(Allocation, ParseArgvRejectsANulByteBeforeItAllocates) {
  EXPECT_EQ(split(std::string("a\0", 2)), SHQUOTE_ERR_EMBEDDED_NUL);
  EXPECT_EQ(heap().requests, 0);
  expectNothingStored();
}

TEST_F(Allocation, TheOtherFunctionsAllocateNothing) {
  const std::string text = std::string(500, 'x') + "'y'\"z\\$\"\\ ";
  std::string target(2 * text.size(), '\0');
  char* out = target.data();
  std::size_t room = target.size();
  const char* in = text.data();
  std::size_t left = text.size();
  heap() = Heap{.watched = true};
  const int quoteCode = c_shquote_quote(&out, &room, text.data(), text.size());
  out = target.data();
  room = target.size();
  const int unquoteCode = c_shquote_unquote(&out, &room, text.data(), text.size());
  out = target.data();
  room = target.size();
  const int nextCode = c_shquote_parse_next(&out, &room, &in, &left);
  heap().watched = false;
  EXPECT_EQ(heap().requests, 0);
  EXPECT_EQ(quoteCode, 0);
  EXPECT_EQ(unquoteCode, 0);
  EXPECT_EQ(nextCode, 0);
}
