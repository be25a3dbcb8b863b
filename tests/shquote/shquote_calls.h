// The shell-quoting functions, wrapped so that they take and return values.
//
// Each call places its input and its output directly before an inaccessible page, and checks what
// holds for every call: success moves the cursors by as much as the counts decrease, and failure
// leaves cursors, counts and results unchanged.
#ifndef TESTS_SHQUOTE_SHQUOTE_CALLS_H
#define TESTS_SHQUOTE_SHQUOTE_CALLS_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "shquote/shquote-private.h"
#include "shquote/shquote.h"
#include "tests/shquote/edge_buffer.h"

// The outcome of a call: its code, its output, and the rest of the input.
struct Outcome {
  int code = 0;
  std::string output;
  std::string rest;

  bool operator==(const Outcome&) const = default;
};

inline std::ostream& operator<<(std::ostream& stream, const Outcome& outcome) {
  return stream << "code " << outcome.code << ", output " << testing::PrintToString(outcome.output)
                << ", rest " << testing::PrintToString(outcome.rest);
}

inline Outcome gives(std::string_view output) {
  return {0, std::string(output), ""};
}
inline Outcome gives(std::string_view output, std::string_view rest) {
  return {0, std::string(output), std::string(rest)};
}
inline Outcome fails(int code) {
  return {code, "", ""};
}

// More than any function needs for this input.
inline std::size_t ampleRoom(std::string_view input) {
  return 4 * input.size() + 3;
}

using TextFunction = int (*)(char**, std::size_t*, const char*, std::size_t) noexcept;
using CursorFunction = int (*)(char**, std::size_t*, const char**, std::size_t*) noexcept;

inline Outcome callOnCursor(CursorFunction function, std::string_view input, std::size_t room) {
  const EdgeBuffer source(input);
  const EdgeBuffer target(room);
  char* out = target.begin();
  const char* in = source.begin();
  std::size_t left = input.size();
  const int code = function(&out, &room, &in, &left);

  const auto written = static_cast<std::size_t>(out - target.begin());
  const auto consumed = static_cast<std::size_t>(in - source.begin());
  EXPECT_EQ(written, target.size() - room) << "the output cursor and its room disagree";
  EXPECT_EQ(consumed, source.size() - left) << "the input cursor and its length disagree";
  if (code == 0) return gives({target.begin(), written}, {in, left});
  EXPECT_EQ(written, 0U) << "a failed call moved the output cursor";
  EXPECT_EQ(consumed, 0U) << "a failed call moved the input cursor";
  return fails(code);
}

inline Outcome callOnText(TextFunction function, std::string_view input, std::size_t room) {
  const EdgeBuffer source(input);
  const EdgeBuffer target(room);
  char* out = target.begin();
  const int code = function(&out, &room, source.begin(), input.size());

  const auto written = static_cast<std::size_t>(out - target.begin());
  EXPECT_EQ(written, target.size() - room) << "the output cursor and its room disagree";
  if (code == 0) return gives({target.begin(), written});
  EXPECT_EQ(written, 0U) << "a failed call moved the output cursor";
  return fails(code);
}

inline Outcome quote(std::string_view input, std::size_t room) {
  return callOnText(c_shquote_quote, input, room);
}
inline Outcome quote(std::string_view input) {
  return quote(input, ampleRoom(input));
}

inline Outcome unquote(std::string_view input, std::size_t room) {
  return callOnText(c_shquote_unquote, input, room);
}
inline Outcome unquote(std::string_view input) {
  return unquote(input, ampleRoom(input));
}

inline Outcome parseNext(std::string_view input, std::size_t room) {
  return callOnCursor(c_shquote_parse_next, input, room);
}
inline Outcome parseNext(std::string_view input) {
  return parseNext(input, ampleRoom(input));
}

inline Outcome copyDoubleQuoted(std::string_view input, std::size_t room) {
  return callOnCursor(c_shquote_copy_double_quoted, input, room);
}
inline Outcome copyDoubleQuoted(std::string_view input) {
  return copyDoubleQuoted(input, ampleRoom(input));
}

// Expects the call to succeed with exactly the room of its output, and to fail with any less.
inline void expectExactRoom(Outcome (*call)(std::string_view, std::size_t), std::string_view input,
                            const Outcome& expected) {
  const std::size_t need = expected.output.size();
  EXPECT_EQ(call(input, need), expected);
  for (std::size_t room = 0; room < need; ++room) {
    EXPECT_EQ(call(input, room), fails(SHQUOTE_ERR_NO_ROOM)) << "with room " << room;
  }
}

// The outcome of c_shquote_parse_argv.
struct Split {
  int code = 0;
  std::vector<std::string> words;

  bool operator==(const Split&) const = default;
};

inline std::ostream& operator<<(std::ostream& stream, const Split& split) {
  return stream << "code " << split.code << ", words " << testing::PrintToString(split.words);
}

inline Split splitsInto(std::vector<std::string> words) {
  return {0, std::move(words)};
}
inline Split splitFails(int code) {
  return {code, {}};
}

inline Split parseArgv(std::string_view input) {
  const EdgeBuffer source(input);
  char* untouched = nullptr;
  char** words = &untouched;
  std::size_t count = 12345;
  const int code = c_shquote_parse_argv(&words, &count, source.begin(), input.size());
  if (code != 0) {
    EXPECT_EQ(words, &untouched) << "a failed call stored an array";
    EXPECT_EQ(count, 12345U) << "a failed call stored a count";
    return splitFails(code);
  }
  EXPECT_EQ(words[count], nullptr) << "the array does not end in a null pointer";
  Split split = splitsInto({words, words + count});
  std::free(words);
  return split;
}

#endif  // TESTS_SHQUOTE_SHQUOTE_CALLS_H
