// A second implementation of the quoting rules, as a state machine that takes one byte at a time.
// It is slow and shares nothing with the functions under test, which search ahead and copy runs.
#ifndef TESTS_SHQUOTE_NAIVE_READER_H
#define TESTS_SHQUOTE_NAIVE_READER_H

#include <cstddef>
#include <string>
#include <string_view>

#include "tests/shquote/shquote_calls.h"

class NaiveReader {
 public:
  // If it splits, the reader takes one token; otherwise it takes the whole input as one text.
  NaiveReader(bool splits, std::size_t room) : splits_(splits), room_(room) {}

  Outcome read(std::string_view input) {
    std::size_t used = 0;
    while (used < input.size() && take(input[used]) && !overflown_) ++used;
    if (overflown_) return fails(SHQUOTE_ERR_NO_ROOM);
    if (state_ == State::Single || state_ == State::Double || state_ == State::DoubleEscape) {
      return fails(SHQUOTE_ERR_UNTERMINATED);
    }
    if (splits_ && !started_) return fails(SHQUOTE_ERR_END_OF_INPUT);
    return gives(output_, input.substr(used));
  }

 private:
  enum class State { Bare, BareEscape, Comment, Single, Double, DoubleEscape, After };

  static bool isBlank(char byte) { return byte == ' ' || byte == '\t' || byte == '\n'; }

  // Returns false for the first byte after the token.
  bool take(char byte) {
    switch (state_) {
      case State::Bare:
        takeBare(byte);
        return true;
      case State::BareEscape:
        takeBareEscaped(byte);
        return true;
      case State::Comment:
        takeCommented(byte);
        return true;
      case State::Single:
        takeSingleQuoted(byte);
        return true;
      case State::Double:
        takeDoubleQuoted(byte);
        return true;
      case State::DoubleEscape:
        takeDoubleEscaped(byte);
        return true;
      case State::After:
        return isBlank(byte);
    }
    return false;
  }

  void takeBare(char byte) {
    if (byte == '\'') {
      open(State::Single);
    } else if (byte == '"') {
      open(State::Double);
    } else if (byte == '\\') {
      state_ = State::BareEscape;
    } else if (splits_ && isBlank(byte)) {
      state_ = started_ ? State::After : State::Bare;
    } else if (splits_ && byte == '#' && !started_) {
      state_ = State::Comment;
    } else {
      put(byte);
    }
  }

  void takeBareEscaped(char byte) {
    state_ = State::Bare;
    if (byte != '\n') put(byte);
  }

  void takeCommented(char byte) {
    if (byte == '\n') state_ = State::Bare;
  }

  // Checks the room only at the closing quote, since an open quote takes precedence.
  void takeSingleQuoted(char byte) {
    if (byte != '\'') {
      pending_ += byte;
      return;
    }
    for (char quoted : pending_) put(quoted);
    pending_.clear();
    state_ = State::Bare;
  }

  void takeDoubleQuoted(char byte) {
    if (byte == '"') {
      state_ = State::Bare;
    } else if (byte == '\\') {
      state_ = State::DoubleEscape;
    } else {
      put(byte);
    }
  }

  void takeDoubleEscaped(char byte) {
    state_ = State::Double;
    const bool special = byte == '"' || byte == '$' || byte == '\\' || byte == '`' || byte == '\n';
    if (!special) put('\\');
    put(byte);
  }

  void open(State quote) {
    started_ = true;
    state_ = quote;
  }

  void put(char byte) {
    started_ = true;
    overflown_ = overflown_ || output_.size() == room_;
    if (!overflown_) output_ += byte;
  }

  const bool splits_;
  const std::size_t room_;
  State state_ = State::Bare;
  bool started_ = false;
  bool overflown_ = false;
  std::string pending_;
  std::string output_;
};

inline Outcome naiveUnquote(std::string_view input, std::size_t room) {
  return NaiveReader(false, room).read(input);
}
inline Outcome naiveParseNext(std::string_view input, std::size_t room) {
  return NaiveReader(true, room).read(input);
}

inline Split naiveParseArgv(std::string_view input) {
  if (input.find('\0') != std::string_view::npos) return splitFails(SHQUOTE_ERR_EMBEDDED_NUL);
  std::vector<std::string> words;
  Outcome token = naiveParseNext(input, input.size());
  for (; token.code == 0; token = naiveParseNext(token.rest, input.size())) {
    words.push_back(token.output);
  }
  return token.code == SHQUOTE_ERR_END_OF_INPUT ? splitsInto(words) : splitFails(token.code);
}

inline Outcome naiveQuote(std::string_view input, std::size_t room) {
  std::string quoted = "'";
  for (const char byte : input) quoted += byte == '\'' ? "'\\''" : std::string(1, byte);
  quoted += '\'';
  return quoted.size() <= room ? gives(quoted) : fails(SHQUOTE_ERR_NO_ROOM);
}

#endif  // TESTS_SHQUOTE_NAIVE_READER_H
