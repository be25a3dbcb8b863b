#include "tools/check/EntryRules.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <exception>
#include <limits>
#include <stdexcept>
#include <utility>
#include <vector>

#include "tools/check/EntryWords.h"
#include "tools/check/Text.h"
#include "tools/common/ConfiguredSlots.h"

namespace check {
namespace {

// Typographic quotes do not quote in an entry.
bool beginsCurly(std::string_view text) {
  constexpr std::array<std::string_view, 5> curly = {"\u201C", "\u201D", "\u201E", "\u2018",
                                                     "\u2019"};
  return std::any_of(curly.begin(), curly.end(),
                     [&](std::string_view each) { return text.starts_with(each); });
}

// Reads the words of one value.
class EntryReader {
 public:
  EntryReader(const Section& section, Span value, LineReport& report)
      : section_(section),
        place_(value),
        value_(value.of(report.line().text)),
        words_(entryWordsOf(value_)),
        report_(report) {}

  std::optional<Entry> read();

 private:
  bool isMeter() const { return section_.kind == SectionKind::MeterEntries; }
  bool isContinuation() const { return report_.line().kind == LineKind::Continuation; }
  std::string_view kindName() const { return isMeter() ? "Meter" : "Param"; }

  // Converts a place within the value to a place within the line.
  Span inLine(Span part) const { return {place_.begin + part.begin, part.size}; }

  void reportQuote();
  std::string_view wordWithin(std::string_view text) const;
  std::string_view wordAtEnd(std::string_view text) const;
  void reportBackslash();
  void reportComment();
  void take(std::size_t index);
  void takeField(const Word& word, const Field& field);
  void ignoreWord(std::size_t index);
  void reportBlankAroundEquals(std::size_t index);
  bool isBlankAroundEquals(std::size_t index) const;
  bool isPlain(std::size_t index) const;
  bool isKnownName(std::string_view name) const {
    return !sameNameIn(name, wordsOf(section_.kind)).empty();
  }
  std::string remedyForBareWord(std::size_t index) const;
  std::string remedyForTail(std::string_view before, std::string_view text) const;
  std::string remedyForSecondEquals(const Field& field) const;
  void refuseWord(std::size_t index, const Field& field);
  std::string remedyForUnknownWord(std::size_t index, const Field& field) const;
  void takeName(const Word& word, const Field& field);
  void takeType(const Word& word, const Field& field);
  void takeDefault(const Word& word, const Field& field);
  void takeNumber(const std::string& text, Span place);
  std::string remedyForRest(std::string_view rest) const;
  void reportCurlyQuote(const Word& word);
  void reportOutOfRange(const std::string& text, Span place);
  void reportUnsigned(const std::string& text, unsigned long number, Span place);
  void reportRepeated(const Word& word, const Field& field);

  const Section& section_;
  const Span place_;
  const std::string_view value_;
  const EntryWords words_;
  LineReport& report_;
  Entry entry_;
  bool good_ = true;
  std::size_t skip_ = 0;    // following words that a diagnostic has already covered
  bool inComment_ = false;  // after a ";" or "//" that was meant to begin a comment
  std::vector<std::pair<std::string, std::string>> seen_;  // names and values
};

std::optional<Entry> EntryReader::read() {
  const Span whole = place_.size > 0 ? place_ : report_.line().body;
  entry_.place = entry_.keyPlace = entry_.customKeyPlace = whole;
  if (words_.openQuote) {
    reportQuote();
    return std::nullopt;
  }
  for (std::size_t i = 0; i < words_.words.size(); ++i) take(i);
  if (words_.comment) reportComment();
  reportBackslash();
  return good_ ? std::optional(entry_) : std::nullopt;
}

void EntryReader::reportQuote() {
  const Span place = inLine({*words_.openQuote, 1});
  const std::string_view rest = report_.line().rest.of(report_.line().text);
  const char quote = value_[*words_.openQuote];
  // The closing quote is in what the reader cut as a comment, so no comment was meant.
  if (rest.starts_with(';') && rest.find(quote) != rest.npos) {
    report_.add(
        Rule::CommentInQuotes, {report_.line().rest.begin, 1},
        fmt::format(
            "this \";\" begins a comment even inside quotes and leaves the quote open, so {}",
            report_.consequence()),
        "remove the white space before the \";\", or the \";\" itself");
    return;
  }
  const std::size_t unread = words_.words.empty() ? 0 : words_.words.back().place.end();
  const std::size_t first = value_.find_first_of("\"'", unread);
  const std::string_view swallowed = wordWithin(value_.substr(first));
  if (!swallowed.empty()) {
    report_.add(
        Rule::OpenQuote, inLine({first, 1}),
        fmt::format("this quote is not closed before {}=, which leaves a quote open at the end of "
                    "the line, so {}",
                    swallowed, report_.consequence()),
        fmt::format("close it with {0} before the space in front of {1}=, or write \\{0} for a "
                    "literal quote",
                    value_[first], swallowed));
    return;
  }
  report_.add(Rule::OpenQuote, place,
              fmt::format("this quote is never closed, so {}", report_.consequence()),
              fmt::format("close it with {}, or write \\{} for a literal quote", quote, quote));
}

// The first known word that follows a space in quoted text.
std::string_view EntryReader::wordWithin(std::string_view text) const {
  std::string_view first;
  std::size_t least = text.npos;
  for (const std::string& word : wordsOf(section_.kind)) {
    const std::size_t begin = text.find(" " + word + "=");
    if (begin >= least) continue;
    least = begin;
    first = word;
  }
  return first;
}

// The known word at the end of the text, where it was probably meant to begin a word of its own.
std::string_view EntryReader::wordAtEnd(std::string_view text) const {
  std::string_view longest;
  for (const std::string& word : wordsOf(section_.kind)) {
    if (!text.ends_with(word) || word.size() <= longest.size()) continue;
    const std::string_view before = text.substr(0, text.size() - word.size());
    // "MonKey" is a word of its own, not "Mon" and Key.
    const bool isApart =
        before.empty() || std::isalnum(static_cast<unsigned char>(before.back())) == 0;
    if (isApart || word != "Key") longest = word;
  }
  return longest;
}

void EntryReader::reportBackslash() {
  const auto lost = lostBackslashIn(value_, words_.comment.value_or(value_.size()));
  if (!lost) return;
  if (*lost + 1 == value_.size()) {
    report_.add(Rule::LostBackslash, inLine({*lost, 1}),
                "this \"\\\" does not join the next line to the entry, and the module ignores it",
                "write the whole entry on one line");
    return;
  }
  report_.add(Rule::LostBackslash, inLine({*lost, 2}),
              fmt::format("the module removes a \"\\\" outside quotes and reads {} as \"{}\"",
                          inQuotes(value_.substr(*lost, 2)), value_[*lost + 1]),
              "put double quotes around the value if the \"\\\" is part of it");
}

void EntryReader::reportComment() {
  const std::size_t begin = *words_.comment;
  const std::string_view comment = value_.substr(begin);
  report_.add(
      Rule::HashComment, inLine({begin, comment.size()}),
      fmt::format("this \"#\" begins a comment, so the module ignores {}", inQuotes(comment)),
      "put quotes around the word if the \"#\" is part of it, or begin the comment with \" ;\"");
}

void EntryReader::take(std::size_t index) {
  if (skip_ > 0) {
    --skip_;
    return;
  }
  const Word& word = words_.words[index];
  const Field field = fieldOf(word.text);
  if (isContinuation() && word.text.starts_with(';') && !inComment_) {
    inComment_ = true;
    const std::size_t size = value_.size() - word.place.begin;
    report_.add(
        Rule::CommentInContinuation, inLine({word.place.begin, size}),
        "\";\" does not begin a comment in an indented line, so the module reads what follows "
        "as words",
        "put the comment on a line of its own");
  }
  if (field.shape == Field::Shape::Whole || field.shape == Field::Shape::Cut) {
    const auto& known = wordsOf(section_.kind);
    const bool isKnown = std::find(known.begin(), known.end(), field.name) != known.end();
    if (isKnown)
      takeField(word, field);
    else
      refuseWord(index, field);
  } else if (isBlankAroundEquals(index)) {
    reportBlankAroundEquals(index);
  } else if (!inComment_) {
    ignoreWord(index);
  }
}

void EntryReader::takeField(const Word& word, const Field& field) {
  reportRepeated(word, field);
  if (field.shape == Field::Shape::Cut) {
    const Span place = placeOfValue(value_, word);
    report_.add(
        Rule::TextAfterSecondEquals, inLine(place),
        fmt::format("the value ends at the second \"=\", so {} is {} and the module drops {}",
                    field.name, inQuotes(field.value), inQuotes(field.dropped)),
        remedyForSecondEquals(field));
  }
  if (beginsCurly(placeOfValue(value_, word).of(value_))) reportCurlyQuote(word);
  if (field.name == "Type")
    takeType(word, field);
  else if (field.name == "DefaultValue")
    takeDefault(word, field);
  else
    takeName(word, field);
}

std::string EntryReader::remedyForSecondEquals(const Field& field) const {
  if (field.dropped.find_first_of(",;") != field.dropped.npos ||
      field.value.find_first_of(",;") != field.value.npos) {
    return "separate words with spaces, not with \",\" or \";\"";
  }
  const std::string_view next = wordAtEnd(field.value);
  if (next.empty()) return "choose a value without \"=\"";
  if (field.value.size() > next.size() &&
      isBlank(field.value[field.value.size() - next.size() - 1])) {
    return fmt::format("quote each value separately, so that {}= is outside the quotes", next);
  }
  return fmt::format("write a space before {}=", next);
}

void EntryReader::reportRepeated(const Word& word, const Field& field) {
  const auto earlier = std::find_if(seen_.rbegin(), seen_.rend(),
                                    [&](const auto& each) { return each.first == field.name; });
  if (earlier != seen_.rend()) {
    report_.add(Rule::RepeatedWord, inLine(word.place),
                fmt::format("{} appears twice and the last one wins, so it is {}, not {}",
                            field.name, inQuotes(field.value), inQuotes(earlier->second)),
                "remove the one that you do not want");
  }
  seen_.emplace_back(field.name, field.value);
}

void EntryReader::reportCurlyQuote(const Word& word) {
  report_.add(Rule::CurlyQuote, inLine(placeOfValue(value_, word)),
              "typographic quotes are ordinary characters here, so they become part of the value",
              "use \" instead");
}

// ---- Words that the module ignores ------------------------------------------------------------

// "Key = a" or "Key= a": several words where one was meant.
bool EntryReader::isBlankAroundEquals(std::size_t index) const {
  const auto& words = words_.words;
  const auto& known = wordsOf(section_.kind);
  std::string_view name = words[index].text;
  std::size_t next = index + 1;
  if (name.ends_with('=')) {
    name.remove_suffix(1);
  } else if (next < words.size() && words[next].text == "=") {
    ++next;
  } else {
    return false;
  }
  return std::find(known.begin(), known.end(), name) != known.end() && next < words.size() &&
         words[next].text.find('=') == std::string::npos;
}

void EntryReader::reportBlankAroundEquals(std::size_t index) {
  const auto& words = words_.words;
  skip_ = words[index].text.ends_with('=') ? 1 : 2;
  const Word& last = words[index + skip_];
  const std::string_view name(words[index].text.data(), words[index].text.find('='));
  const std::size_t begin = words[index].place.begin;
  const bool joined = skip_ == 1;
  report_.add(
      joined ? Rule::WordEndsInEquals : Rule::WordWithoutEquals,
      inLine({begin, last.place.end() - begin}),
      "a space next to \"=\" splits this word, so the module ignores its parts",
      fmt::format("write {}={} without spaces", joined ? name : std::string_view(words[index].text),
                  last.place.of(value_)));
}

void EntryReader::ignoreWord(std::size_t index) {
  const Word& word = words_.words[index];
  const Field field = fieldOf(word.text);
  if (field.shape == Field::Shape::EndingInEquals) {
    report_.add(
        Rule::WordEndsInEquals, inLine(word.place),
        fmt::format("the word {} ends in \"=\", so the module ignores it", inQuotes(word.text)),
        field.name.empty() ? "remove it" : fmt::format("write {}=VALUE, or remove it", field.name));
    return;
  }
  if (field.shape == Field::Shape::Empty) {
    report_.add(Rule::WordWithoutEquals, inLine(word.place),
                "these quotes are empty, so the module ignores them",
                "remove them, or write NAME=VALUE");
    return;
  }
  if (word.text.starts_with("//") || word.text == "--") {
    inComment_ = true;
    report_.add(
        Rule::WordWithoutEquals, inLine({word.place.begin, value_.size() - word.place.begin}),
        fmt::format("{} does not begin a comment, so the module reads what follows as words",
                    inQuotes(word.text.substr(0, 2))),
        "begin the comment with \" ;\"");
    return;
  }
  // "Key: a"
  const bool isName =
      word.text.ends_with(':') && isKnownName(word.text.substr(0, word.text.size() - 1));
  if (isName && index + 1 < words_.words.size() && isPlain(index + 1)) ++skip_;
  if (isPlain(index)) {
    while (index + skip_ + 1 < words_.words.size() && isPlain(index + skip_ + 1)) ++skip_;
  }
  const std::size_t begin = word.place.begin;
  const Span place{begin, words_.words[index + skip_].place.end() - begin};
  report_.add(Rule::WordWithoutEquals, inLine(place),
              skip_ == 0 ? fmt::format("the word {} has no \"=\", so the module ignores it",
                                       inQuotes(word.text))
                         : fmt::format("the words {} have no \"=\", so the module ignores them",
                                       inQuotes(place.of(value_))),
              remedyForBareWord(index));
}

// A word without "=" that means nothing on its own but could be part of a value.
bool EntryReader::isPlain(std::size_t index) const {
  const Word& word = words_.words[index];
  const auto isRate = [&](std::string_view rate) { return isMeter() && sameName(word.text, rate); };
  const std::string_view name = std::string_view(word.text).substr(0, word.text.find(':'));
  return fieldOf(word.text).shape == Field::Shape::WithoutEquals && !word.text.starts_with("//") &&
         word.place.of(value_).find_first_of("\"'\\") == std::string_view::npos &&
         !isKnownName(name) && !isRate("fast") && !isRate("slow");
}

std::string EntryReader::remedyForBareWord(std::size_t index) const {
  const std::string& text = words_.words[index].text;
  const auto& known = wordsOf(section_.kind);
  const std::size_t colon = text.find(':');
  if (const auto name = sameNameIn(text.substr(0, colon), known); !name.empty()) {
    const bool hasValue = colon != text.npos && colon + 1 < text.size();
    const bool isNext = skip_ > 0;
    return fmt::format("write {}={}", name,
                       hasValue ? text.substr(colon + 1)
                       : isNext ? words_.words[index + 1].text
                                : "VALUE");
  }
  if (isMeter() && (sameName(text, "fast") || sameName(text, "slow"))) {
    return fmt::format("write Type={} if that is the rate",
                       sameName(text, "fast") ? "fast" : "slow");
  }
  const std::size_t begin = words_.words[index].place.begin;
  const std::size_t end = words_.words[index + skip_].place.end();
  const std::string_view all = value_.substr(begin, end - begin);
  if (index == 0 && skip_ > 0) return fmt::format("write Key=\"{}\" if that is the key", all);
  if (index == 0) return fmt::format("write Key={} if that is the key", text);
  return remedyForTail(words_.words[index - 1].place.of(value_), all);
}

// For bare text after the word `before`.
std::string EntryReader::remedyForTail(std::string_view before, std::string_view text) const {
  const std::size_t equals = before.find('=');
  if (beginsCurly(before.substr(std::min(equals, before.size() - 1) + 1))) {
    return "use \" instead of typographic quotes";
  }
  if (equals == before.npos || before.find_first_of("\"'\\") != before.npos) {
    return "remove this, or put quotes around the whole value";
  }
  const std::string_view name = before.substr(0, equals);
  const bool isNumber = name == "DefaultValue" && section_.type != ValueType::String;
  if (isNumber || name == "Type") return skip_ == 0 ? "remove it" : "remove them";
  return fmt::format("write {}=\"{} {}\" if that is the whole value", name,
                     before.substr(equals + 1), text);
}

// ---- Words that the module refuses ------------------------------------------------------------

void EntryReader::refuseWord(std::size_t index, const Field& field) {
  const Word& word = words_.words[index];
  good_ = false;
  const Span place = inLine(word.place);
  const std::string what =
      field.name.empty()
          ? fmt::format("the word {} has no name before its \"=\"", inQuotes(word.text))
          : fmt::format("a {} does not accept the word {}", kindName(), inQuotes(field.name));
  report_.add(
      Rule::UnknownWord,
      {place.begin, field.name.empty() ? place.size : std::min(place.size, field.name.size())},
      fmt::format("{}, so {}", what, report_.consequence()), remedyForUnknownWord(index, field));
}

std::string EntryReader::remedyForUnknownWord(std::size_t index, const Field& field) const {
  const auto& known = wordsOf(section_.kind);
  if (field.name.empty() && index > 0) {
    const std::string& before = words_.words[index - 1].text;
    if (std::find(known.begin(), known.end(), before) != known.end()) {
      return fmt::format("write {}={} without spaces", before, field.value);
    }
  }
  if (words_.words[index].place.of(value_).starts_with('\\')) {
    return "remove the \"\\\", which joins the word to what follows";
  }
  if (const auto name = sameNameIn(field.name, known); !name.empty()) {
    return fmt::format("write {}: case matters", name);
  }
  const auto begun = std::find_if(known.begin(), known.end(), [&](const std::string& word) {
    return field.name.size() > 2 && sameName(word.substr(0, field.name.size()), field.name);
  });
  if (begun != known.end()) return fmt::format("did you mean {}=?", *begun);
  if (!sameNameIn(field.name, wordsOf(SectionKind::MeterEntries)).empty()) {
    return "remove it: a parameter has neither a rate nor a default";
  }
  if (sameName(field.name, "Name")) return "write Key=, or CustomKey= for the slot name";
  if (const std::string close = closestName(field.name, known); !close.empty()) {
    return fmt::format("did you mean {}=?", close);
  }
  return fmt::format("a {} accepts {}", kindName(), fmt::join(known, ", "));
}

// ---- Known words ------------------------------------------------------------------------------

void EntryReader::takeName(const Word& word, const Field& field) {
  const Span place = inLine(placeOfValue(value_, word));
  const bool isKey = field.name == "Key";
  (isKey ? entry_.key : entry_.customKey) = field.value;
  (isKey ? entry_.keyPlace : entry_.customKeyPlace) = place;
  if (isKey && !isUtf8(field.value)) {
    report_.add(Rule::KeyNotUtf8, place,
                isMeter()
                    ? fmt::format("the key {} is not valid UTF-8, so no meter can have it and "
                                  "the slot keeps its default",
                                  inQuotes(field.value))
                    : fmt::format("the key {} is not valid UTF-8, so the engine service can't "
                                  "read a call that contains it",
                                  inQuotes(field.value)),
                "save the file as UTF-8, or correct the key");
  }
  if (field.value.ends_with(',') || field.value.ends_with(';')) {
    report_.add(Rule::TrailingComma, place,
                fmt::format("{} {} ends in \"{}\", which is part of the name", field.name,
                            inQuotes(field.value), field.value.back()),
                fmt::format("remove the \"{}\"", field.value.back()));
  }
  if (hasUnseenCharacter(field.value)) {
    report_.add(Rule::ControlCharacter, place,
                fmt::format("{} {} contains an invisible character, which is part of the name",
                            field.name, inQuotes(field.value)),
                "remove it, or replace it with a space");
  }
  if (!field.value.empty() && (isBlank(field.value.front()) || isBlank(field.value.back()))) {
    report_.add(Rule::OuterBlanks, place,
                fmt::format("{} {} begins or ends with white space, which is part of the name",
                            field.name, inQuotes(field.value)),
                "remove the white space inside the quotes");
  }
}

void EntryReader::takeType(const Word& word, const Field& field) {
  if (field.value == "fast" || field.value == "slow") {
    entry_.isSlow = field.value == "slow";
    return;
  }
  good_ = false;
  constexpr std::array<std::string_view, 6> valueTypes = {"string", "int",    "uint",
                                                          "float",  "double", "text"};
  const std::vector<std::string> rates = {"fast", "slow"};
  const auto lower = sameNameIn(field.value, rates);
  const std::string close = closestName(field.value, rates);
  const bool isValueType =
      std::any_of(valueTypes.begin(), valueTypes.end(),
                  [&](std::string_view each) { return sameName(each, field.value); });
  std::string remedy = "write Type=fast or Type=slow";
  if (!lower.empty())
    remedy = fmt::format("write Type={}, in lower case", lower);
  else if (!close.empty())
    remedy = fmt::format("did you mean Type={}?", close);
  else if (isValueType)
    remedy += "; the value type comes from the section";
  report_.add(
      Rule::UnknownType, inLine(placeOfValue(value_, word)),
      fmt::format("{} is not a valid Type, so {}", inQuotes(field.value), report_.consequence()),
      remedy);
}

void EntryReader::takeDefault(const Word& word, const Field& field) {
  const Span place = inLine(placeOfValue(value_, word));
  if (section_.type != ValueType::String) {
    takeNumber(field.value, place);
  } else if (field.value.size() > tools::slotTextLimit) {
    report_.add(Rule::LongDefault, place,
                fmt::format("the default has {} bytes, but the slot keeps only the first {}",
                            field.value.size(), tools::slotTextLimit),
                "shorten it");
  }
}

// Uses the module's conversions, so that both accept the same texts.
void EntryReader::takeNumber(const std::string& text, Span place) {
  std::size_t used = 0;
  std::string read;
  try {
    if (section_.type == ValueType::Float) {
      read = fmt::format("{}", std::stof(text, &used));
    } else if (section_.type == ValueType::Int) {
      read = std::to_string(std::stoi(text, &used));
    } else {
      const unsigned long number = std::stoul(text, &used);
      read = std::to_string(static_cast<std::uint32_t>(number));
      reportUnsigned(text, number, place);
    }
  } catch (const std::out_of_range&) {
    reportOutOfRange(text, place);
    return;
  } catch (const std::exception&) {
    good_ = false;
    report_.add(
        Rule::BadDefault, place,
        fmt::format("the default {} is not a number, so {}", inQuotes(text), report_.consequence()),
        "write a number, or move the entry to [MetersString]");
    return;
  }
  if (used == text.size()) return;
  report_.add(
      Rule::TrailingText, place,
      fmt::format("the module reads only the number at the beginning of {}, so the default is {}",
                  inQuotes(text), read),
      remedyForRest(std::string_view(text).substr(used)));
}

// For text after a number.
std::string EntryReader::remedyForRest(std::string_view rest) const {
  const bool isWhole = section_.type != ValueType::Float;
  if (rest == "," || rest == ";") return fmt::format("remove the \"{}\"", rest);
  if (rest.front() == ',') return "write \".\" as the decimal point";
  if (rest.front() == '.' && isWhole) {
    return "write a whole number, or move the entry to [MetersFloat]";
  }
  constexpr std::string_view notations = "eExX";
  if (isWhole && notations.find(rest.front()) != rest.npos) return "write it in decimal digits";
  return "write only the number";
}

void EntryReader::reportOutOfRange(const std::string& text, Span place) {
  good_ = false;
  const std::string_view range =
      section_.type == ValueType::Int    ? "write a number from -2147483648 to 2147483647"
      : section_.type == ValueType::Uint ? "write a number from 0 to 4294967295"
                                         : "write 0, or a number that fits a 32-bit float";
  report_.add(Rule::BadDefault, place,
              fmt::format("the default {} is out of range for {} {}, so {}", inQuotes(text),
                          section_.type == ValueType::Int ? "an" : "a", nameOf(section_.type),
                          report_.consequence()),
              std::string(range));
}

void EntryReader::reportUnsigned(const std::string& text, unsigned long number, Span place) {
  const bool isNegative = text.find('-') < text.find_first_of("0123456789");
  const bool isZero = number == 0;
  if (number <= std::numeric_limits<std::uint32_t>::max() && (!isNegative || isZero)) return;
  report_.add(Rule::UnsignedRange, place,
              fmt::format("an unsigned default keeps only its low 32 bits, so {} becomes {}",
                          inQuotes(text), static_cast<std::uint32_t>(number)),
              "write a number from 0 to 4294967295, or move the entry to [MetersInt]");
}

}  // namespace

std::optional<Entry> readEntry(const Section& section, Span value, LineReport& report) {
  return EntryReader(section, value, report).read();
}

}  // namespace check
