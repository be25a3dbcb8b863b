// The four shell functions on any text, with any room. Each must agree with a second, naive
// implementation. The first byte is the room of the output; 255 means ample room.
#include "tests/fuzz/Target.h"
#include "tests/shquote/naive_reader.h"
#include "tests/shquote/shquote_calls.h"

namespace {

// Comparing every token of a long text would take as long as many inputs.
constexpr int tokensCompared = 8;

std::string difference(std::string_view function, const auto& got, const auto& expected) {
  return std::string(function) + " gave " + testing::PrintToString(got) + ", and not " +
         testing::PrintToString(expected);
}

template <class Outcome>
void requireSame(std::string_view function, const Outcome& got, const Outcome& expected) {
  if (got != expected) fuzz::require(false, difference(function, got, expected));
}

void compareTokens(std::string text, std::size_t room) {
  Outcome token;
  for (int i = 0; i < tokensCompared && token.code == 0; ++i) {
    token = parseNext(text, room);
    requireSame("parse_next", token, naiveParseNext(text, room));
    text = token.rest;
  }
}

void compareQuoting(std::string_view text, std::size_t room) {
  requireSame("quote", quote(text, room), naiveQuote(text, room));
  const Outcome quoted = quote(text);
  requireSame("unquote of quote", unquote(quoted.output), gives(text));
  requireSame("parse_next of quote", parseNext(quoted.output), gives(text));
}

}  // namespace

fuzz::Result fuzz::tryInput(std::string_view input) {
  // The calls themselves check some promises with GoogleTest's macros, which must end the process.
  GTEST_FLAG_SET(throw_on_failure, true);
  if (input.empty()) return Result::Skipped;
  const std::string text(input.substr(1));
  const auto first = static_cast<unsigned char>(input[0]);
  const std::size_t room = first == 255 ? ampleRoom(text) : first;
  compareQuoting(text, room);
  requireSame("unquote", unquote(text, room), naiveUnquote(text, room));
  compareTokens(text, room);
  const Split words = parseArgv(text);
  requireSame("parse_argv", words, naiveParseArgv(text));
  return words.code == 0 ? Result::Accepted : Result::Refused;
}
