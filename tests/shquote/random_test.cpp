// Properties of the functions, on texts made of the bytes that matter to them. A seed determines
// each text, and a failure prints it.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>

#include "tests/shquote/naive_reader.h"
#include "tests/shquote/shquote_calls.h"

using namespace std::string_view_literals;

namespace {

constexpr std::string_view kAlphabet = "'\"\\\n \t#a$`\0"sv;

class Dice {
 public:
  explicit Dice(unsigned seed) : generator_(seed) {}

  std::size_t below(std::size_t limit) { return generator_() % limit; }

  std::string text(std::size_t maxLength) {
    std::string text(below(maxLength + 1), '\0');
    for (char& byte : text) byte = kAlphabet[below(kAlphabet.size())];
    return text;
  }

  // Half of the time, more than any output needs.
  std::size_t roomFor(std::string_view text) {
    return below(2) == 0 ? ampleRoom(text) : below(text.size() + 2);
  }

  // A separator between two words.
  std::string separator() {
    const std::string_view choices[] = {" ", "\t", "\n", " \t\n ", "\n#a 'b\n", " # \"\n\\\n"};
    return std::string(choices[below(std::size(choices))]);
  }

 private:
  std::minstd_rand generator_;
};

// Runs `check` with the dice of each seed, up to the first failure.
template <typename Check>
void forSeeds(unsigned count, Check check) {
  for (unsigned seed = 1; seed <= count && !testing::Test::HasFailure(); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Dice dice(seed * 2654435761U);
    check(dice);
  }
}

// Counts how often each code occurs, so that a test can require all of them.
class Tally {
 public:
  void count(int code) { ++seen_[code]; }
  void expectAtLeast(int times, std::initializer_list<int> codes) const {
    for (int code : codes) {
      const auto found = seen_.find(code);
      EXPECT_GE(found == seen_.end() ? 0 : found->second, times) << "with code " << code;
    }
  }

 private:
  std::map<int, int> seen_;
};

void expectUnquotesLikeNaiveReader(std::string_view text, std::size_t room, Tally& tally) {
  const Outcome expected = naiveUnquote(text, room);
  tally.count(expected.code);
  ASSERT_EQ(unquote(text, room), expected)
      << "unquote of " << testing::PrintToString(std::string(text)) << " with room " << room;
}

// Compares token by token up to the first failure.
void expectParsesLikeNaiveReader(std::string text, std::size_t room, Tally& tally) {
  Outcome expected;
  for (; expected.code == 0; text = expected.rest) {
    expected = naiveParseNext(text, room);
    tally.count(expected.code);
    ASSERT_EQ(parseNext(text, room), expected)
        << "parse_next of " << testing::PrintToString(text) << " with room " << room;
  }
}

// The words that repeated calls of parseNext return.
Split splitByTokens(std::string_view text) {
  if (text.find('\0') != std::string_view::npos) return splitFails(SHQUOTE_ERR_EMBEDDED_NUL);
  std::vector<std::string> words;
  Outcome token = parseNext(text);
  for (; token.code == 0; token = parseNext(token.rest)) words.push_back(token.output);
  return token.code == SHQUOTE_ERR_END_OF_INPUT ? splitsInto(words) : splitFails(token.code);
}

// Calls `check` with every text of `length` more bytes of the alphabet.
template <typename Check>
void forTextsOfLength(std::size_t length, std::string& prefix, Check check) {
  if (testing::Test::HasFailure()) return;
  if (length == 0) return check(prefix);
  for (char byte : kAlphabet) {
    prefix.push_back(byte);
    forTextsOfLength(length - 1, prefix, check);
    prefix.pop_back();
  }
}

}  // namespace

TEST(ShquoteRandom, UnquoteUndoesQuote) {
  forSeeds(10000, [](Dice& dice) {
    const std::string text = dice.text(30);
    EXPECT_EQ(unquote(quote(text).output), gives(text));
  });
}

TEST(ShquoteRandom, AQuotedTextIsOneToken) {
  forSeeds(10000, [](Dice& dice) {
    const std::string text = dice.text(30);
    EXPECT_EQ(parseNext(quote(text).output), gives(text));
  });
}

TEST(ShquoteRandom, QuoteNeedsTheInputLengthPlusTwoPlusThreeForEachQuote) {
  forSeeds(10000, [](Dice& dice) {
    const std::string text = dice.text(30);
    const auto quotes = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\''));
    const std::size_t need = text.size() + 2 + 3 * quotes;
    EXPECT_EQ(quote(text, need).output.size(), need);
    EXPECT_EQ(quote(text, need - 1 - dice.below(need)), fails(SHQUOTE_ERR_NO_ROOM));
  });
}

TEST(ShquoteRandom, SplittingRecoversQuotedWords) {
  forSeeds(5000, [](Dice& dice) {
    std::vector<std::string> words(dice.below(8));
    std::string text;
    for (std::string& word : words) {
      word = dice.text(10);
      std::erase(word, '\0');
      text += dice.separator() + quote(word).output;
    }
    EXPECT_EQ(parseArgv(text + dice.separator()), splitsInto(words));
  });
}

TEST(ShquoteRandom, ParseArgvAgreesWithRepeatedParseNext) {
  Tally tally;
  forSeeds(20000, [&tally](Dice& dice) {
    const std::string text = dice.text(14);
    const Split expected = splitByTokens(text);
    tally.count(expected.code);
    EXPECT_EQ(parseArgv(text), expected) << testing::PrintToString(text);
  });
  tally.expectAtLeast(1000, {0, SHQUOTE_ERR_UNTERMINATED, SHQUOTE_ERR_EMBEDDED_NUL});
}

TEST(ShquoteRandom, UnquoteAgreesWithTheNaiveReader) {
  Tally tally;
  forSeeds(100000, [&tally](Dice& dice) {
    const std::string text = dice.text(14);
    expectUnquotesLikeNaiveReader(text, dice.roomFor(text), tally);
  });
  tally.expectAtLeast(1000, {0, SHQUOTE_ERR_NO_ROOM, SHQUOTE_ERR_UNTERMINATED});
}

TEST(ShquoteRandom, ParseNextAgreesWithTheNaiveReader) {
  Tally tally;
  forSeeds(100000, [&tally](Dice& dice) {
    const std::string text = dice.text(14);
    expectParsesLikeNaiveReader(text, dice.roomFor(text), tally);
  });
  tally.expectAtLeast(1000,
                      {0, SHQUOTE_ERR_NO_ROOM, SHQUOTE_ERR_UNTERMINATED, SHQUOTE_ERR_END_OF_INPUT});
}

TEST(ShquoteExhaustive, AllShortTextsAgreeWithTheNaiveReader) {
  Tally tally;
  for (std::size_t length = 0; length <= 4; ++length) {
    std::string prefix;
    forTextsOfLength(length, prefix, [&tally](const std::string& text) {
      for (std::size_t room = 0; room <= text.size(); ++room) {
        expectUnquotesLikeNaiveReader(text, room, tally);
        expectParsesLikeNaiveReader(text, room, tally);
      }
    });
  }
  tally.expectAtLeast(1000,
                      {0, SHQUOTE_ERR_NO_ROOM, SHQUOTE_ERR_UNTERMINATED, SHQUOTE_ERR_END_OF_INPUT});
}
