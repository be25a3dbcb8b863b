#include "tools/check/DefaultRules.h"

#include <fmt/format.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <exception>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "tools/check/Text.h"
#include "tools/common/ConfiguredSlots.h"

namespace check {
namespace {

// A default as the module reads it.
struct Number {
  enum class State { Read, OutOfRange, NotANumber } state = State::Read;
  std::size_t used = 0;     // the bytes at the beginning that are the number
  float fraction = 0;       // of a float
  int integer = 0;          // of an int
  unsigned long whole = 0;  // of an unsigned int, before it is cut to 32 bits
};

// Uses the module's conversions, so that both accept the same texts.
Number numberIn(const std::string& text, ValueType type) {
  Number number;
  try {
    if (type == ValueType::Float)
      number.fraction = std::stof(text, &number.used);
    else if (type == ValueType::Int)
      number.integer = std::stoi(text, &number.used);
    else
      number.whole = std::stoul(text, &number.used);
  } catch (const std::out_of_range&) {
    number.state = Number::State::OutOfRange;
  } catch (const std::exception&) {
    number.state = Number::State::NotANumber;
  }
  return number;
}

struct DefaultFacts {
  const WordFacts& word;
  std::string_view text;
  std::optional<Number> number;  // unless the slot holds a text

  ValueType type() const { return word.entry.section.type; }
  bool isRead() const { return number && number->state == Number::State::Read; }
};

// What the module reads, as text.
std::string readText(const Number& number, ValueType type) {
  if (type == ValueType::Float) return fmt::format("{}", number.fraction);
  if (type == ValueType::Int) return std::to_string(number.integer);
  return std::to_string(static_cast<std::uint32_t>(number.whole));
}

MaybeFinding defaultNotFinite(const DefaultFacts& facts) {
  if (!facts.isRead() || std::isfinite(facts.number->fraction)) return std::nullopt;
  return Finding{"default-not-finite", facts.word.place(),
                 fmt::format("the default {} is not a finite number, and the slot holds it until a "
                             "value arrives",
                             inQuotes(facts.text)),
                 "write a number"};
}

std::string_view adviceForRange(ValueType type) {
  if (type == ValueType::Int) return "write a number from -2147483648 to 2147483647";
  if (type == ValueType::Uint) return "write a number from 0 to 4294967295";
  return "write 0, or a number that fits a 32-bit float";
}

MaybeFinding badDefault(const DefaultFacts& facts) {
  if (!facts.number || facts.isRead()) return std::nullopt;
  const std::string value = inQuotes(facts.text);
  switch (facts.number->state) {
    case Number::State::Read:
      break;
    case Number::State::NotANumber:
      return Finding{
          "bad-default", facts.word.place(),
          fmt::format("the default {} is not a number, so {}", value, facts.word.entry.consequence),
          "write a number, or move the entry to [MetersString]"};
    case Number::State::OutOfRange:
      return Finding{"bad-default", facts.word.place(),
                     fmt::format("the default {} is out of range for {}, so {}", value,
                                 withArticle(facts.type()), facts.word.entry.consequence),
                     std::string(adviceForRange(facts.type()))};
  }
  return std::nullopt;
}

// For text after a number.
Remedy remedyForRest(const DefaultFacts& facts) {
  const std::string_view rest = facts.text.substr(facts.number->used);
  const bool isWhole = facts.type() != ValueType::Float;
  if (rest == "," || rest == ";") {
    const Span last{facts.word.place().end() - 1, 1};
    Remedy remedy = remove(last, fmt::format("the \"{}\"", rest));
    if (last.of(facts.word.entry.line.text) != rest) remedy.edit.reset();
    return safe(std::move(remedy));
  }
  if (rest.front() == ',') return "write \".\" as the decimal point";
  if (rest.front() == '.' && isWhole) {
    return "write a whole number, or move the entry to [MetersFloat]";
  }
  constexpr std::string_view notations = "eExX";
  if (isWhole && notations.find(rest.front()) != rest.npos) return "write it in decimal digits";
  return "write only the number";
}

MaybeFinding trailingText(const DefaultFacts& facts) {
  if (!facts.isRead() || facts.number->used == facts.text.size()) return std::nullopt;
  return Finding{
      "trailing-text", facts.word.place(),
      fmt::format("the module reads only the number at the beginning of {}, so the default is {}",
                  inQuotes(facts.text), readText(*facts.number, facts.type())),
      remedyForRest(facts)};
}

MaybeFinding unsignedRange(const DefaultFacts& facts) {
  if (!facts.isRead() || facts.type() != ValueType::Uint) return std::nullopt;
  const std::string_view text = facts.text;
  const Number& number = *facts.number;
  const bool isNegative = text.find('-') < text.find_first_of("0123456789");
  const bool fits = number.whole <= std::numeric_limits<std::uint32_t>::max();
  if (fits && (!isNegative || number.whole == 0)) return std::nullopt;
  return Finding{"unsigned-range", facts.word.place(),
                 fmt::format("an unsigned default keeps only its low 32 bits, so {} becomes {}",
                             inQuotes(text), readText(number, ValueType::Uint)),
                 "write a number from 0 to 4294967295, or move the entry to [MetersInt]"};
}

MaybeFinding longDefault(const DefaultFacts& facts) {
  if (facts.number || facts.text.size() <= tools::slotTextLimit) return std::nullopt;
  return Finding{"long-default", facts.word.place(),
                 fmt::format("the default has {} bytes, but the slot keeps only the first {}",
                             facts.text.size(), tools::slotTextLimit),
                 "shorten it"};
}

constexpr std::array defaultRuleTable = {badDefault, unsignedRange, trailingText, defaultNotFinite,
                                         longDefault};

}  // namespace

void judgeDefault(const WordFacts& word, std::vector<Finding>& findings) {
  const ValueType type = word.entry.section.type;
  DefaultFacts facts{word, word.field.value, {}};
  if (type != ValueType::String) facts.number = numberIn(std::string(facts.text), type);
  for (const auto rule : defaultRuleTable) {
    if (MaybeFinding finding = rule(facts)) findings.push_back(*std::move(finding));
  }
}

}  // namespace check
