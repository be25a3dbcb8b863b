// What all functions have in common: codes, cursors, names, languages and threads.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <thread>
#include <type_traits>

#include "tests/shquote/shquote_calls.h"

extern "C" const char* nameOfFunctionThatFailsInC(void);

namespace {

struct CloseLibrary {
  void operator()(void* library) const { dlclose(library); }
};
using Library = std::unique_ptr<void, CloseLibrary>;

Library openExports() {
  return Library(dlopen(SHQUOTE_EXPORTS_PATH, RTLD_NOW | RTLD_LOCAL));
}

}  // namespace

TEST(ShquoteContract, CodesHaveTheirFixedValues) {
  EXPECT_EQ(SHQUOTE_ERR_NO_ROOM, 1);
  EXPECT_EQ(SHQUOTE_ERR_UNTERMINATED, 2);
  EXPECT_EQ(SHQUOTE_ERR_END_OF_INPUT, 3);
  EXPECT_EQ(SHQUOTE_ERR_EMBEDDED_NUL, 4);
  EXPECT_EQ(-ENOMEM, -12);
  EXPECT_EQ(-ENOTRECOVERABLE, -131);
}

TEST(ShquoteContract, NoFunctionThrows) {
  EXPECT_TRUE((std::is_nothrow_invocable_v<decltype(c_shquote_quote), char**, std::size_t*,
                                           const char*, std::size_t>));
  EXPECT_TRUE((std::is_nothrow_invocable_v<decltype(c_shquote_unquote), char**, std::size_t*,
                                           const char*, std::size_t>));
  EXPECT_TRUE((std::is_nothrow_invocable_v<decltype(c_shquote_parse_next), char**, std::size_t*,
                                           const char**, std::size_t*>));
  EXPECT_TRUE((std::is_nothrow_invocable_v<decltype(c_shquote_parse_argv), char***, std::size_t*,
                                           const char*, std::size_t>));
}

// The calls of shquote_calls.h check this every time. Here, each kind of failure happens once, with
// some input already processed.
TEST(ShquoteContract, AFailedCallLeavesCursorsAndCountsUnchanged) {
  EXPECT_EQ(quote("abc'd", 7), fails(SHQUOTE_ERR_NO_ROOM));
  EXPECT_EQ(unquote("a'b'\"c\"d", 3), fails(SHQUOTE_ERR_NO_ROOM));
  EXPECT_EQ(unquote("a'b'\"c\"'d"), fails(SHQUOTE_ERR_UNTERMINATED));
  EXPECT_EQ(parseNext(" # a\n b'c'\"d\"e", 3), fails(SHQUOTE_ERR_NO_ROOM));
  EXPECT_EQ(parseNext(" # a\n b'c'\"d\"'e"), fails(SHQUOTE_ERR_UNTERMINATED));
  EXPECT_EQ(parseNext(" # a\n \\\n "), fails(SHQUOTE_ERR_END_OF_INPUT));
  EXPECT_EQ(copyDoubleQuoted("\"ab\\$c\"", 3), fails(SHQUOTE_ERR_NO_ROOM));
  EXPECT_EQ(copyDoubleQuoted("\"ab\\$c"), fails(SHQUOTE_ERR_UNTERMINATED));
  EXPECT_EQ(parseArgv("a b 'c"), splitFails(SHQUOTE_ERR_UNTERMINATED));
}

TEST(ShquoteContract, ReadsNoBytePastTheLength) {
  const char text[] = "ab'c' \"d\"";
  const char* in = text;
  std::size_t left = 2;
  char buffer[16];
  char* out = buffer;
  std::size_t room = sizeof(buffer);
  EXPECT_EQ(c_shquote_quote(&out, &room, text, 2), 0);
  EXPECT_EQ(c_shquote_unquote(&out, &room, text, 2), 0);
  EXPECT_EQ(c_shquote_parse_next(&out, &room, &in, &left), 0);
  EXPECT_EQ(std::string_view(buffer, sizeof(buffer) - room), "'ab'abab");
}

TEST(ShquoteContract, AcceptsNullPointersWithZeroCounts) {
  char* out = nullptr;
  std::size_t room = 0;
  const char* in = nullptr;
  std::size_t left = 0;
  char** words = nullptr;
  std::size_t count = 1;
  EXPECT_EQ(c_shquote_quote(&out, &room, nullptr, 0), SHQUOTE_ERR_NO_ROOM);
  EXPECT_EQ(c_shquote_unquote(&out, &room, nullptr, 0), 0);
  EXPECT_EQ(c_shquote_unquote(&out, &room, "''", 2), 0);
  EXPECT_EQ(c_shquote_parse_next(&out, &room, &in, &left), SHQUOTE_ERR_END_OF_INPUT);
  EXPECT_EQ(c_shquote_copy_double_quoted(&out, &room, &in, &left), -131);
  EXPECT_EQ(c_shquote_parse_argv(&words, &count, nullptr, 0), 0);
  EXPECT_EQ(count, 0U);
  std::free(words);
}

TEST(ShquoteContract, TheFunctionsWorkFromC) {
  EXPECT_STREQ(nameOfFunctionThatFailsInC(), "");
}

TEST(ShquoteContract, TheFourFunctionsAreExportedUnderTheirPlainNames) {
  const Library library = openExports();
  ASSERT_NE(library, nullptr) << dlerror();
  for (const char* name :
       {"c_shquote_quote", "c_shquote_unquote", "c_shquote_parse_next", "c_shquote_parse_argv"}) {
    EXPECT_NE(dlsym(library.get(), name), nullptr) << name;
  }
}

TEST(ShquoteContract, TheSharedHelperIsNotExported) {
  const Library library = openExports();
  ASSERT_NE(library, nullptr) << dlerror();
  EXPECT_EQ(dlsym(library.get(), "c_shquote_copy_double_quoted"), nullptr);
}

TEST(ShquoteContract, ConcurrentCallsDoNotInterfere) {
  constexpr int kThreads = 4;
  Split seen[kThreads];
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&mine = seen[i], word = std::string(i + 1, static_cast<char>('a' + i))] {
      for (int round = 0; round < 200 && mine.code == 0; ++round) {
        mine = parseArgv(quote(word).output + " '" + word + "'");
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(seen[0], splitsInto({"a", "a"}));
  EXPECT_EQ(seen[1], splitsInto({"bb", "bb"}));
  EXPECT_EQ(seen[2], splitsInto({"ccc", "ccc"}));
  EXPECT_EQ(seen[3], splitsInto({"dddd", "dddd"}));
}
