// What modules are given, whether they return it, and whether they keep to its bounds.
#include <algorithm>
#include <new>

#include "tests/standin/with_host.h"

using standin::Outstanding;

namespace {

class Memory : public WithHost {
 protected:
  static char* block(std::uint64_t count, std::uint64_t size) {
    return static_cast<char*>(sonalith_calloc(count, size));
  }
};

// What the address sanitizer would stop at once, so that the host's own checks get to see it.
__attribute__((noinline, no_sanitize("address"))) void poke(volatile char* address) {
  *address = 'x';
}
__attribute__((noinline, no_sanitize("address"))) char peek(const volatile char* address) {
  return *address;
}

}  // namespace

TEST_F(Memory, IsZeroFilledForCountTimesSizeBytes) {
  char* bytes = block(3, 100);
  EXPECT_EQ(std::string(bytes, 300), std::string(300, '\0'));
  EXPECT_EQ(host.outstanding(), (Outstanding{1, 300, 0, 0}));
}

TEST_F(Memory, MayBeFilledToItsLastByte) {
  char* bytes = block(3, 100);
  std::fill_n(bytes, 300, 'x');
  EXPECT_EQ(host.violations(), Texts{});
  sonalith_free(bytes);
  EXPECT_EQ(host.violations(), Texts{});
}

TEST_F(Memory, IsCountedUntilItIsReleased) {
  char* first = block(1, 8);
  char* second = block(2, 50);
  EXPECT_EQ(host.outstanding(), (Outstanding{2, 108, 0, 0}));
  sonalith_free(first);
  EXPECT_EQ(host.outstanding(), (Outstanding{1, 100, 0, 0}));
  sonalith_free(second);
  EXPECT_EQ(host.outstanding(), (Outstanding{0, 0, 0, 0}));
}

TEST_F(Memory, IsToldInTheJournalByRisingNumbers) {
  char* first = block(3, 100);
  char* second = block(1, 8);
  sonalith_free(second);
  sonalith_free(first);
  sonalith_free(block(0, 4));
  EXPECT_EQ(host.journal(), (Texts{"calloc 3x100 #1", "calloc 1x8 #2", "free #2", "free #1",
                                   "calloc 0x4 #3", "free #3"}));
}

TEST_F(Memory, OfNoBytesIsABlockOfItsOwn) {
  char* first = block(0, 4);
  char* second = block(4, 0);
  EXPECT_NE(first, nullptr);
  EXPECT_NE(second, nullptr);
  EXPECT_NE(first, second);
  EXPECT_EQ(host.outstanding(), (Outstanding{2, 0, 0, 0}));
}

TEST_F(Memory, IsNeverNullEvenIfTheProductHasNoRoomInItsType) {
  EXPECT_THROW(block(std::uint64_t{1} << 33, std::uint64_t{1} << 33), std::bad_alloc);
  EXPECT_THROW(block(1, UINT64_MAX), std::bad_alloc);
  EXPECT_EQ(host.outstanding(), Outstanding{});
}

TEST_F(Memory, ReleasedTwiceIsAViolationAndReleasedOnce) {
  char* bytes = block(1, 8);
  sonalith_free(bytes);
  sonalith_free(bytes);
  EXPECT_EQ(host.violations(), Texts{"sonalith_free: block #1 of 8 bytes is released already"});
  EXPECT_EQ(host.journal(), (Texts{"calloc 1x8 #1", "free #1"}));
  EXPECT_EQ(host.outstanding(), Outstanding{});
}

TEST_F(Memory, ReleasedTwiceIsNoticedThoughABlockOfThatSizeCameBetween) {
  char* bytes = block(1, 8);
  sonalith_free(bytes);
  EXPECT_NE(block(1, 8), bytes);
  sonalith_free(bytes);
  EXPECT_EQ(host.violations(), Texts{"sonalith_free: block #1 of 8 bytes is released already"});
  EXPECT_EQ(host.outstanding(), (Outstanding{1, 8, 0, 0}));
}

TEST_F(Memory, OfAnotherOwnerIsNotReleased) {
  int own = 0;
  sonalith_free(&own);
  sonalith_free(block(1, 8) + 1);
  EXPECT_EQ(host.violations(), (Texts{"sonalith_free: not a block of the host",
                                      "sonalith_free: not a block of the host"}));
  EXPECT_EQ(host.outstanding(), (Outstanding{1, 8, 0, 0}));
}

TEST_F(Memory, NullIsNotReleased) {
  sonalith_free(nullptr);
  EXPECT_EQ(host.violations(), Texts{"sonalith_free: null where none may be"});
  EXPECT_EQ(host.journal(), Texts{});
}

TEST_F(Memory, WrittenBehindItsEndIsNoticedBeforeItsRelease) {
  poke(block(2, 4) + 8);
  EXPECT_EQ(host.violations(), Texts{"block #1 of 8 bytes was written behind its end"});
}

TEST_F(Memory, WrittenBehindItsEndIsNoticedAtItsRelease) {
  char* bytes = block(2, 4);
  poke(bytes + 8 + 63);
  sonalith_free(bytes);
  EXPECT_EQ(host.violations(), Texts{"block #1 of 8 bytes was written behind its end"});
}

TEST_F(Memory, WrittenBehindItsEndIsToldOnce) {
  char* bytes = block(2, 4);
  poke(bytes + 8);
  const Texts once = host.violations();
  sonalith_free(bytes);
  EXPECT_EQ(host.violations(), once);
}

TEST_F(Memory, IsOverwrittenWhenItIsReleased) {
  char* bytes = block(1, 2);
  bytes[0] = 'a';
  bytes[1] = 'b';
  sonalith_free(bytes);
  EXPECT_EQ(peek(bytes), '\xDD');
  EXPECT_EQ(peek(bytes + 1), '\xDD');
}

TEST_F(Memory, WrittenAfterItsReleaseIsNoticedOnce) {
  char* bytes = block(1, 8);
  sonalith_free(bytes);
  poke(bytes + 7);
  EXPECT_EQ(host.violations(), Texts{"block #1 of 8 bytes was written after its release"});
  EXPECT_EQ(host.violations(), Texts{"block #1 of 8 bytes was written after its release"});
}

TEST_F(Memory, WrittenAfterItsReleaseIsNoticedWhenItGoesBackToTheHeap) {
  constexpr std::uint64_t moreThanIsKept = 17 << 20;
  char* bytes = block(1, 8);
  sonalith_free(bytes);
  poke(bytes);
  sonalith_free(block(1, moreThanIsKept));
  EXPECT_EQ(host.violations(), Texts{"block #1 of 8 bytes was written after its release"});
}

TEST_F(Memory, WrittenBehindItsEndAndAfterItsReleaseIsToldOfBoth) {
  char* bytes = block(1, 8);
  poke(bytes + 8);
  sonalith_free(bytes);
  poke(bytes);
  EXPECT_EQ(host.violations(), (Texts{"block #1 of 8 bytes was written behind its end",
                                      "block #1 of 8 bytes was written after its release"}));
}

TEST_F(Memory, ReturnsToTheHostWithoutLeakWhenTheHostGoes) {
  block(1, 8);
  sonalith_createModuleOffset(nullptr);
  sonalith_keyValueListNew();
  EXPECT_EQ(host.outstanding(), (Outstanding{2, 16, 1, 0}));
}
