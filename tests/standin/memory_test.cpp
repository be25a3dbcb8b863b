// The memory that modules are given: whether they return it and stay within its bounds.
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

// Accesses that the address sanitizer does not see, so that the host's own checks have to.
__attribute__((noinline, no_sanitize("address"))) void poke(volatile char* address) {
  *address = 'x';
}
__attribute__((noinline, no_sanitize("address"))) char peek(const volatile char* address) {
  return *address;
}

}  // namespace

TEST_F(Memory, ABlockHasCountTimesSizeZeroBytes) {
  char* bytes = block(3, 100);
  EXPECT_EQ(std::string(bytes, 300), std::string(300, '\0'));
  EXPECT_EQ(host.outstanding(), (Outstanding{1, 300, 0, 0}));
}

TEST_F(Memory, ABlockMayBeFilledToItsLastByte) {
  char* bytes = block(3, 100);
  std::fill_n(bytes, 300, 'x');
  EXPECT_EQ(host.violations(), Texts{});
  sonalith_free(bytes);
  EXPECT_EQ(host.violations(), Texts{});
}

TEST_F(Memory, ABlockIsOutstandingUntilItsRelease) {
  char* first = block(1, 8);
  char* second = block(2, 50);
  EXPECT_EQ(host.outstanding(), (Outstanding{2, 108, 0, 0}));
  sonalith_free(first);
  EXPECT_EQ(host.outstanding(), (Outstanding{1, 100, 0, 0}));
  sonalith_free(second);
  EXPECT_EQ(host.outstanding(), (Outstanding{0, 0, 0, 0}));
}

TEST_F(Memory, TheJournalNumbersBlocksInOrder) {
  char* first = block(3, 100);
  char* second = block(1, 8);
  sonalith_free(second);
  sonalith_free(first);
  sonalith_free(block(0, 4));
  EXPECT_EQ(host.journal(), (Texts{"calloc 3x100 #1", "calloc 1x8 #2", "free #2", "free #1",
                                   "calloc 0x4 #3", "free #3"}));
}

TEST_F(Memory, ABlockOfNoBytesHasAnAddressOfItsOwn) {
  char* first = block(0, 4);
  char* second = block(4, 0);
  EXPECT_NE(first, nullptr);
  EXPECT_NE(second, nullptr);
  EXPECT_NE(first, second);
  EXPECT_EQ(host.outstanding(), (Outstanding{2, 0, 0, 0}));
}

TEST_F(Memory, AnOverflowingSizeThrowsInsteadOfReturningNull) {
  EXPECT_THROW(block(std::uint64_t{1} << 33, std::uint64_t{1} << 33), std::bad_alloc);
  EXPECT_THROW(block(1, UINT64_MAX), std::bad_alloc);
  EXPECT_EQ(host.outstanding(), Outstanding{});
}

TEST_F(Memory, ASecondReleaseIsAViolationAndHasNoEffect) {
  char* bytes = block(1, 8);
  sonalith_free(bytes);
  sonalith_free(bytes);
  EXPECT_EQ(host.violations(),
            Texts{"sonalith_free: block #1 of 8 bytes has already been released"});
  EXPECT_EQ(host.journal(), (Texts{"calloc 1x8 #1", "free #1"}));
  EXPECT_EQ(host.outstanding(), Outstanding{});
}

TEST_F(Memory, ASecondReleaseIsNoticedAfterAnotherAllocationOfThatSize) {
  char* bytes = block(1, 8);
  sonalith_free(bytes);
  EXPECT_NE(block(1, 8), bytes);
  sonalith_free(bytes);
  EXPECT_EQ(host.violations(),
            Texts{"sonalith_free: block #1 of 8 bytes has already been released"});
  EXPECT_EQ(host.outstanding(), (Outstanding{1, 8, 0, 0}));
}

TEST_F(Memory, ReleasingForeignMemoryIsAViolation) {
  int own = 0;
  sonalith_free(&own);
  sonalith_free(block(1, 8) + 1);
  EXPECT_EQ(host.violations(), (Texts{"sonalith_free: not a block that the host allocated",
                                      "sonalith_free: not a block that the host allocated"}));
  EXPECT_EQ(host.outstanding(), (Outstanding{1, 8, 0, 0}));
}

TEST_F(Memory, ReleasingNullIsAViolation) {
  sonalith_free(nullptr);
  EXPECT_EQ(host.violations(), Texts{"sonalith_free: null argument"});
  EXPECT_EQ(host.journal(), Texts{});
}

TEST_F(Memory, AWritePastTheEndIsNoticedBeforeTheRelease) {
  poke(block(2, 4) + 8);
  EXPECT_EQ(host.violations(), Texts{"block #1 of 8 bytes was written past its end"});
}

TEST_F(Memory, AWritePastTheEndIsNoticedAtTheRelease) {
  char* bytes = block(2, 4);
  poke(bytes + 8 + 63);
  sonalith_free(bytes);
  EXPECT_EQ(host.violations(), Texts{"block #1 of 8 bytes was written past its end"});
}

TEST_F(Memory, AWritePastTheEndIsReportedOnce) {
  char* bytes = block(2, 4);
  poke(bytes + 8);
  const Texts once = host.violations();
  sonalith_free(bytes);
  EXPECT_EQ(host.violations(), once);
}

TEST_F(Memory, AReleaseOverwritesTheBlock) {
  char* bytes = block(1, 2);
  bytes[0] = 'a';
  bytes[1] = 'b';
  sonalith_free(bytes);
  EXPECT_EQ(peek(bytes), '\xDD');
  EXPECT_EQ(peek(bytes + 1), '\xDD');
}

TEST_F(Memory, AWriteAfterTheReleaseIsReportedOnce) {
  char* bytes = block(1, 8);
  sonalith_free(bytes);
  poke(bytes + 7);
  EXPECT_EQ(host.violations(), Texts{"block #1 of 8 bytes was written after its release"});
  EXPECT_EQ(host.violations(), Texts{"block #1 of 8 bytes was written after its release"});
}

TEST_F(Memory, AWriteAfterTheReleaseIsNoticedWhenTheHeapGetsTheBlockBack) {
  constexpr std::uint64_t moreThanIsKept = 17 << 20;
  char* bytes = block(1, 8);
  sonalith_free(bytes);
  poke(bytes);
  sonalith_free(block(1, moreThanIsKept));
  EXPECT_EQ(host.violations(), Texts{"block #1 of 8 bytes was written after its release"});
}

TEST_F(Memory, WritesPastTheEndAndAfterTheReleaseAreBothReported) {
  char* bytes = block(1, 8);
  poke(bytes + 8);
  sonalith_free(bytes);
  poke(bytes);
  EXPECT_EQ(host.violations(), (Texts{"block #1 of 8 bytes was written past its end",
                                      "block #1 of 8 bytes was written after its release"}));
}

TEST_F(Memory, TheHostFreesWhatModulesHaveNotReturned) {
  block(1, 8);
  sonalith_createModuleOffset(nullptr);
  sonalith_keyValueListNew();
  EXPECT_EQ(host.outstanding(), (Outstanding{2, 16, 1, 0}));
}
