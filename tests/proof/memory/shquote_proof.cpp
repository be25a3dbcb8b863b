// The shell functions that the loaded file exports, without memory.
#include <cerrno>
#include <cstdlib>

#include "shquote/shquote.h"
#include "tests/proof/memory/MemoryProof.h"

namespace {

class ShellFunctionsWithoutMemory : public WithoutMemory<GatewayTest> {
 protected:
  template <class Function>
  Function* exported(const char* name) const {
    // A file exports addresses without types.
    return reinterpret_cast<Function*>(module.symbol(name));
  }

  // Needs quotes, escapes, blanks and more than one run.
  const std::string text_ = "one 'two  three' \"f\\\"our\" fi\\ve # six" + std::string(300, 'x');
};

TEST_F(ShellFunctionsWithoutMemory, QuoteUnquoteAndParseNextAllocateNothing) {
  const auto quote = exported<decltype(c_shquote_quote)>("c_shquote_quote");
  const auto unquote = exported<decltype(c_shquote_unquote)>("c_shquote_unquote");
  const auto parseNext = exported<decltype(c_shquote_parse_next)>("c_shquote_parse_next");
  std::string target(3 * text_.size(), '\0');
  const AllocationFault fault(1, Lasting::ForGood);
  char* out = target.data();
  std::size_t room = target.size();
  EXPECT_EQ(quote(&out, &room, text_.data(), text_.size()), 0);
  const std::string quoted(target.data(), out);
  out = target.data();
  room = target.size();
  EXPECT_EQ(unquote(&out, &room, quoted.data(), quoted.size()), 0);
  EXPECT_EQ(std::string(target.data(), out), text_);
  out = target.data();
  room = target.size();
  const char* in = text_.data();
  std::size_t left = text_.size();
  int words = 0;
  while (parseNext(&out, &room, &in, &left) == 0) ++words;
  EXPECT_EQ(words, 4);
  EXPECT_EQ(fault.requestCount(), 0u);
  expectNoOwnBlocks();
  proof::report({part,
                 "c_shquote_quote, c_shquote_unquote, c_shquote_parse_next",
                 "",
                 {{"functions, with all allocations failing", 3}},
                 "",
                 {{"allocations requested", fault.requestCount()}}});
}

TEST_F(ShellFunctionsWithoutMemory, ParseArgvReturnsAnErrorAndLeaksNothing) {
  const auto parseArgv = exported<decltype(c_shquote_parse_argv)>("c_shquote_parse_argv");
  int failures = 0;
  for (const Lasting lasting : {Lasting::Once, Lasting::ForGood}) {
    for (int nth = 1;; ++nth) {
      char** words = nullptr;
      std::size_t count = 77;
      AllocationFault fault(nth, lasting);
      const int code = parseArgv(&words, &count, text_.data(), text_.size());
      fault.end();
      if (fault.failureCount() == 0) {
        EXPECT_EQ(code, 0);
        EXPECT_EQ(count, 4u);
        std::free(words);
        break;
      }
      ++failures;
      EXPECT_EQ(code, -ENOMEM);
      EXPECT_EQ(words, nullptr);
      EXPECT_EQ(count, 77u);
      expectNoOwnBlocks();
    }
  }
  EXPECT_EQ(failures, 4);
  expectNoOwnBlocks();
  proof::report({part,
                 "c_shquote_parse_argv",
                 "",
                 {{eachAllocation, 2}},
                 "it returns -12, stores nothing and leaks nothing"});
}

}  // namespace
