// The operations that a module imports. Modules that are already compiled pass these arguments,
// whatever a later header says.
#include <gtest/gtest.h>

#include <type_traits>

#include "host/sonalith.h"

// A template argument would lose the attribute that makes the compiler check formats.
TEST(HostOperations, LoggingKeepsItsSignature) {
  using Log = void (*)(std::int32_t, const char*, std::int32_t, std::int32_t, const char*, ...);
  // noexcept evaluates nothing: this only has to compile.
  EXPECT_TRUE(noexcept(static_cast<Log>(&sonalith_log)));
}

TEST(HostOperations, MemoryOperationsKeepTheirSignatures) {
  EXPECT_TRUE((std::is_same_v<decltype(sonalith_calloc), void*(std::uint64_t, std::uint64_t)>));
  EXPECT_TRUE((std::is_same_v<decltype(sonalith_free), void(void*)>));
  EXPECT_TRUE(
      (std::is_same_v<decltype(sonalith_strncpy), void(char*, const char*, std::uint64_t)>));
}

TEST(HostOperations, SlotOperationsKeepTheirSignatures) {
  EXPECT_TRUE(
      (std::is_same_v<decltype(sonalith_createModuleOffset), sonalith_moduleOffsetList*(void*)>));
  EXPECT_TRUE((std::is_same_v<decltype(sonalith_addModuleOffset),
                              void(sonalith_moduleOffsetList**, const sonalith_moduleOffset*)>));
  EXPECT_TRUE((std::is_same_v<decltype(sonalith_moduleValidateOk), const char[]>));
}

TEST(HostOperations, ListOperationsKeepTheirSignatures) {
  using List = sonalith_keyValueList;
  EXPECT_TRUE((std::is_same_v<decltype(sonalith_keyValueListNew), List*()>));
  EXPECT_TRUE((std::is_same_v<decltype(sonalith_keyValueListDestroy), void(List*)>));
  EXPECT_TRUE((std::is_same_v<decltype(sonalith_keyValueListIsEmpty), std::int32_t(const List*)>));
  EXPECT_TRUE((std::is_same_v<decltype(sonalith_keyValueListGetS),
                              std::int32_t(const List*, const char*, const char**)>));
  EXPECT_TRUE((std::is_same_v<decltype(sonalith_keyValueListForEach),
                              void(const List*,
                                   std::int32_t (*)(const sonalith_keyValueItem*, void*), void*)>));
}

TEST(HostOperations, AddOperationsKeepTheirSignatures) {
  using List = sonalith_keyValueList;
  EXPECT_TRUE((
      std::is_same_v<decltype(sonalith_keyValueListAddSS), void(List*, const char*, const char*)>));
  EXPECT_TRUE((std::is_same_v<decltype(sonalith_keyValueListAddSI32),
                              void(List*, const char*, std::int32_t)>));
  EXPECT_TRUE((std::is_same_v<decltype(sonalith_keyValueListAddSU32),
                              void(List*, const char*, std::uint32_t)>));
  EXPECT_TRUE(
      (std::is_same_v<decltype(sonalith_keyValueListAddSF), void(List*, const char*, float)>));
}

TEST(HostOperations, NotificationOperationsKeepTheirSignatures) {
  using Callback = void (*)(sonalith_keyValueList*, void*);
  EXPECT_TRUE((std::is_same_v<decltype(sonalith_engine_notify_changes_addCallback),
                              void*(sonalith_engine*, Callback, void*)>));
  EXPECT_TRUE((std::is_same_v<decltype(sonalith_engine_notify_changes_rmCallback),
                              void(sonalith_engine*, void*)>));
}

TEST(HostOperations, StartAndStopKeepTheirSignatures) {
  EXPECT_TRUE((std::is_same_v<std::remove_pointer_t<sonalith_startCycle>,
                              std::int32_t(sonalith_module*, sonalith_keyValueList*)>));
  EXPECT_TRUE((std::is_same_v<std::remove_pointer_t<sonalith_stopCycle>, void(sonalith_module*)>));
}
