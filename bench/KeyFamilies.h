// Families of key names, as installations choose them: each is a template whose words and numbers
// depend on a seed. A search or a parser that suits only some names shows it in the others.
//
// A template is text with placeholders. {w} is a word and {f40} a filler of 40 bytes: both are the
// same in all keys of a family. The others depend on the key's number:
//
//   {n} {n4}     decimal, and padded with zeros to four digits
//   {x4} {X4}    hexadecimal, in lower and upper case; {z} has base 36, {b12} base 2
//   {v} {V}      a word from a list of 64; {V} begins with a capital
//   {c12}        twelve common letters, with the number's bits as their case
//   {r8} {d8}    eight random digits, hexadecimal or decimal
//
// Operations on the number follow from left to right, as in {n/16%4}; {n*100} makes larger steps.
//
// Any thread; the same seed gives the same keys everywhere.
#pragma once

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cstdint>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace bench {

struct KeyFamily {
  const char* name;
  const char* pattern;
};

inline constexpr auto keyFamilies = std::to_array<KeyFamily>({
    {"plain", "mixer.level.{n}"},
    // One number.
    {"number-end", "{w}.{w}.{n}"},
    {"number-front", "{n}.{w}.{w}"},
    {"number-middle", "{w}.{n}.{w}"},
    {"number-before-middle", "{w}.{n}.{w}.{w}.{w}"},
    {"number-after-middle", "{w}.{w}.{w}.{n}.{w}"},
    {"number-and-unit", "{w}_{w}{n}_dB"},
    {"padded-end", "{w}-{w}-{n5}"},
    {"padded-front", "{n5}-{w}-{w}"},
    {"padded-middle", "{w}{n5}{w}"},
    {"padded-after-middle", "{w}_{w}_{n5}_{w}"},
    {"steps-of-thousand", "{w}.{n*1000}.{w}"},
    {"binary", "{w}.{b13}.{w}"},
    // Several numbers.
    {"two-numbers", "{w}.{n/16}.{w}.{n%16}.{w}"},
    {"two-numbers-padded", "{w}{n3/64}{w}{n2%64}"},
    {"three-numbers", "{w}/{n/256}/{w}/{n/16%16}/{w}/{n%16}"},
    {"ip-address", "10.17.{n/256}.{n%256}"},
    {"mac-address", "02:42:ac:11:{x2/256}:{x2%256}"},
    {"strips", "channel.{n/16}.{v%16}.{w}"},
    {"strips-turned", "{v%16}.{w}.{n/16}"},
    {"index", "{w}[{n}]"},
    {"index-twice", "{w}[{n/16}][{n%16}].{w}"},
    {"index-inside", "{w}.{w}[{n4}].{w}.{w}"},
    // Hexadecimal.
    {"hex", "{w}.0x{x}"},
    {"hex-capitals", "{w}:{X8*65}:{w}"},
    {"hash", "{r16}"},
    {"hash-long", "{w}/{r40}"},
    {"uuid", "{r8}-{r4}-4{r3}-{r4}-{r12}"},
    {"uuid-front", "{r8}-{r4}-4{r3}-{r4}-{r12}.{w}.{w}"},
    {"uuid-end", "{w}/{w}/{r8}-{r4}-4{r3}-{r4}-{r12}"},
    {"serial-number", "SN {d10}"},
    // Paths.
    {"path", "/{w}/{w}/{n}/{w}"},
    {"path-deep", "/{w}/{w}/{w}/{n/64}/{w}/{w}/{n%64}/{w}"},
    {"address", "osc://{w}.local:9000/{w}/{n}/{w}"},
    // Words.
    {"words", "{v/64}.{v}"},
    {"words-joined", "{w}{V/64}{V}Level"},
    {"words-inside", "{w}_{w}_{v/64}_{v}_{w}_{w}"},
    {"sentence", "The {v/64} of the {v} in the {w}"},
    {"letter-case", "{w}.{c13}"},
    {"german", "Kanal {n} – Pegel für {w} {w}"},
    {"japanese", "入力{n}の{w}レベル"},
    // Long and short.
    {"long-front", "{f55}{n}"},
    {"long-end", "{n}{f55}"},
    {"long-sides", "{f40}{n5}{f40}"},
    {"long-after-middle", "{f50}{n5}{f25}"},
    {"very-long", "{f120}.{n}.{f80}"},
    {"short", "{z}"},
    {"digits", "{n}"},
});

// Makes the keys of one family, in order.
class KeyMaker {
 public:
  KeyMaker(const KeyFamily& family, std::uint64_t seed) : random_(seed) {
    for (const char c : std::string_view(family.name)) random_.seed(random_() ^ c);
    // Not std::shuffle, whose result depends on the library.
    for (std::size_t i = words_.size(); i > 1; --i) std::swap(words_[i - 1], words_[random_() % i]);
    number_ = random_() % 100;
    pattern_ = expand(family.pattern, [this](const Placeholder& place) { return common(place); });
  }

  std::string next() {
    const std::string key =
        expand(pattern_, [this](const Placeholder& place) { return varying(place); });
    ++number_;
    return key;
  }

 private:
  struct Placeholder {
    char kind;
    std::size_t width;
    std::string_view operations;
    std::string_view whole;
  };

  // Replaces each placeholder by what `text` makes of it.
  template <class Text>
  static std::string expand(std::string_view pattern, Text text) {
    std::string expanded;
    while (!pattern.empty()) {
      const std::size_t begin = std::min(pattern.find('{'), pattern.size());
      expanded += pattern.substr(0, begin);
      pattern.remove_prefix(begin);
      if (pattern.empty()) break;
      const std::size_t size = pattern.find('}') + 1;
      expanded += text(placeholder(pattern.substr(0, size)));
      pattern.remove_prefix(size);
    }
    return expanded;
  }

  // `whole` has both braces.
  static Placeholder placeholder(std::string_view whole) {
    const char kind = whole[1];
    std::string_view rest = whole.substr(2, whole.size() - 3);
    const std::size_t width = takeNumber(rest);
    return {kind, width, rest, whole};
  }

  // Takes the number at the beginning of a text; 0 if there is none.
  static std::size_t takeNumber(std::string_view& text) {
    std::size_t number = 0;
    text.remove_prefix(static_cast<std::size_t>(
        std::from_chars(text.data(), text.data() + text.size(), number).ptr - text.data()));
    return number;
  }

  // The placeholders that are the same in all keys; the others stay as they are.
  std::string common(const Placeholder& place) {
    if (place.kind == 'w') return word(random_());
    std::string filler;
    while (place.kind == 'f' && filler.size() < place.width)
      filler.append(word(random_())).append(".");
    filler.resize(place.width);
    return place.kind == 'f' ? filler : std::string(place.whole);
  }

  std::string varying(const Placeholder& place) {
    const std::uint64_t number = result(place.operations);
    switch (place.kind) {
      case 'n':
        return digits(number, 10, place.width);
      case 'x':
        return digits(number, 16, place.width);
      case 'X':
        return capitals(digits(number, 16, place.width), ~0u);
      case 'z':
        return digits(number, 36, place.width);
      case 'b':
        return digits(number, 2, place.width);
      case 'v':
        return word(number);
      case 'V':
        return capitals(word(number), 1);
      case 'c':
        return capitals(std::string("levelofthesignal").substr(0, place.width), number);
      case 'r':
        return randomDigits(16, place.width);
      case 'd':
        return randomDigits(10, place.width);
      default:
        throw std::logic_error("unknown placeholder " + std::string(place.whole));
    }
  }

  std::uint64_t result(std::string_view operations) const {
    std::uint64_t number = number_;
    while (!operations.empty()) {
      const char operation = operations[0];
      operations.remove_prefix(1);
      const std::uint64_t operand = takeNumber(operations);
      if (operation == '/') number /= operand;
      if (operation == '%') number %= operand;
      if (operation == '*') number *= operand;
    }
    return number;
  }

  static std::string digits(std::uint64_t number, unsigned base, std::size_t width) {
    std::string text;
    for (; number > 0 || text.empty(); number /= base) {
      text.insert(text.begin(), "0123456789abcdefghijklmnopqrstuvwxyz"[number % base]);
    }
    return std::string(width - std::min(width, text.size()), '0') + text;
  }

  std::string randomDigits(unsigned base, std::size_t width) {
    std::string text;
    while (text.size() < width) text += digits(random_() % base, base, 1);
    return text;
  }

  // Capitals where `bits` has a one, the lowest bit for the first letter.
  static std::string capitals(std::string text, std::uint64_t bits) {
    for (char& c : text) {
      if ((bits & 1) != 0) c = static_cast<char>(std::toupper(c));
      bits >>= 1;
    }
    return text;
  }

  const char* word(std::uint64_t number) const { return words_[number % words_.size()]; }

  std::array<const char*, 64> words_ = {
      "mixer", "level",  "input",  "output", "gain",   "mute",    "solo",     "fader",
      "pan",   "bus",    "aux",    "main",   "left",   "right",   "center",   "send",
      "peak",  "rms",    "vu",     "limit",  "gate",   "comp",    "eq",       "band",
      "low",   "high",   "mid",    "freq",   "delay",  "reverb",  "monitor",  "master",
      "group", "matrix", "stage",  "hall",   "studio", "booth",   "desk",     "rack",
      "slot",  "unit",   "device", "node",   "port",   "channel", "stream",   "clock",
      "sync",  "status", "power",  "fan",    "temp",   "voltage", "phase",    "trim",
      "drive", "tone",   "width",  "depth",  "rate",   "mode",    "ambience", "headphones"};
  std::mt19937_64 random_;
  std::uint64_t number_ = 0;
  std::string pattern_;
};

// The first `count` keys of a family; a smaller count gives the beginning of the same keys. Throws
// std::logic_error if two are equal.
inline std::vector<std::string> keysOf(const KeyFamily& family, std::uint64_t seed,
                                       std::size_t count) {
  KeyMaker maker(family, seed);
  std::vector<std::string> keys(count);
  std::generate(keys.begin(), keys.end(), [&] { return maker.next(); });
  if (std::set(keys.begin(), keys.end()).size() != count) {
    throw std::logic_error(std::string("the family ") + family.name + " repeats a key");
  }
  return keys;
}

}  // namespace bench
