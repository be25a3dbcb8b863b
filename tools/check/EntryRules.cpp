#include "tools/check/EntryRules.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <exception>
#include <limits>
#include <stdexcept>
#include <utility>

#include "tools/check/EntryWords.h"
#include "tools/check/Text.h"
#include "tools/common/ConfiguredSlots.h"

namespace check {
namespace {

// ---- What the rules are given -----------------------------------------------------------------

struct EntryFacts {
  const Section& section;
  const Line& line;
  std::string_view consequence;
  std::string_view value;
  EntryWords split;
  std::vector<Field> fields;  // one for each word

  const std::vector<Word>& words() const { return split.words; }
  bool isMeter() const { return section.kind == SectionKind::MeterEntries; }
  const std::vector<std::string>& known() const { return wordsOf(section.kind); }
  bool knows(std::string_view name) const { return isWordOf(section.kind, name); }
  // Whether the module reads a word with this name.
  bool has(std::string_view name) const {
    return std::any_of(fields.begin(), fields.end(),
                       [&](const Field& each) { return each.isRead() && each.name == name; });
  }
  // Like knows(), but ignores case.
  std::string_view sameAs(std::string_view name) const { return sameNameIn(name, known()); }
  std::string_view source(std::size_t index) const { return words()[index].place.of(value); }

  // Converts a place within the value to a place within the line.
  Span inLine(Span part) const { return {line.value.begin + part.begin, part.size}; }
};

EntryFacts factsOf(const Section& section, const Line& line, const SourceFile& file) {
  const std::string_view value = line.value.of(line.text);
  EntryFacts facts{section, line, consequenceIn(file), value, entryWordsOf(value), {}};
  facts.fields.reserve(facts.words().size());
  for (const Word& word : facts.words()) facts.fields.push_back(fieldOf(word.text));
  return facts;
}

// Words that belong together, and what the module makes of them.
struct Group {
  enum class Kind {
    Known,    // a word of the entry
    Refused,  // a word that the entry does not accept
    Spaced,   // "Key = a": several words where one was meant
    Ignored,  // words that the module ignores
    Comment,  // from here on the words were meant as a comment
  };
  Kind kind = Kind::Known;
  std::size_t first = 0;
  std::size_t size = 1;

  std::size_t last() const { return first + size - 1; }
};

Span placeOf(const EntryFacts& facts, const Group& group) {
  const std::size_t begin = facts.words()[group.first].place.begin;
  return {begin, facts.words()[group.last()].place.end() - begin};
}

constexpr char curlyLead = '\xE2';  // the first byte of each typographic quote

// Typographic quotes do not quote in an entry.
bool beginsCurly(std::string_view text) {
  constexpr std::array<std::string_view, 5> curly = {"\u201C", "\u201D", "\u201E", "\u2018",
                                                     "\u2019"};
  return std::any_of(curly.begin(), curly.end(),
                     [&](std::string_view each) { return text.starts_with(each); });
}

bool isRate(std::string_view text) {
  return sameName(text, "fast") || sameName(text, "slow");
}

// A word without "=" that means nothing on its own but could be part of a value.
bool isPlain(const EntryFacts& facts, std::size_t index) {
  const std::string_view text = facts.words()[index].text;
  return facts.fields[index].shape == Field::Shape::WithoutEquals && !text.starts_with("//") &&
         facts.source(index).find_first_of("\"'\\") == std::string_view::npos &&
         facts.sameAs(text.substr(0, text.find(':'))).empty() && !(facts.isMeter() && isRate(text));
}

// How many words "Key = a" or "Key= a" takes; 0 if the words at `index` are nothing of the kind.
std::size_t spacedWords(const EntryFacts& facts, std::size_t index) {
  const auto& words = facts.words();
  std::string_view name = words[index].text;
  std::size_t last = index + 1;
  if (name.ends_with('=')) {
    name.remove_suffix(1);
  } else if (last < words.size() && words[last].text == "=") {
    ++last;
  } else {
    return 0;
  }
  const bool hasValue = last < words.size() && words[last].text.find('=') == std::string::npos;
  return facts.knows(name) && hasValue ? last - index + 1 : 0;
}

// How many ignored words from `index` on were probably meant as one value.
std::size_t ignoredWords(const EntryFacts& facts, std::size_t index) {
  const std::string_view text = facts.words()[index].text;
  const std::size_t all = facts.words().size();
  std::size_t size = 1;
  if (facts.fields[index].shape != Field::Shape::WithoutEquals) return size;
  // "Key: a"
  const bool isName = text.ends_with(':') && !facts.sameAs(text.substr(0, text.size() - 1)).empty();
  if (isName && index + 1 < all && isPlain(facts, index + 1)) ++size;
  if (!isPlain(facts, index)) return size;
  while (index + size < all && isPlain(facts, index + size)) ++size;
  return size;
}

Group groupAt(const EntryFacts& facts, std::size_t index, bool inComment) {
  using enum Group::Kind;
  const std::string& text = facts.words()[index].text;
  const Field& field = facts.fields[index];
  if (field.isRead()) return {facts.knows(field.name) ? Known : Refused, index};
  if (const std::size_t size = spacedWords(facts, index); size > 0) return {Spaced, index, size};
  const bool isMark = text.starts_with("//") || text == "--";
  const bool isBare = field.shape == Field::Shape::WithoutEquals;
  if (isBare && isMark && !inComment) return {Comment, index, facts.words().size() - index};
  return {Ignored, index, inComment ? 1 : ignoredWords(facts, index)};
}

// A ";" in an indented line was meant to begin a comment.
bool beginsIndentedComment(const EntryFacts& facts, std::size_t index) {
  return facts.line.kind == LineKind::Continuation && facts.words()[index].text.starts_with(';');
}

// The groups of the value. A comment covers the rest of the value, but the module still reads the
// words in it, so these form groups as well. Words in a comment that it ignores form none.
std::vector<Group> groupsOf(const EntryFacts& facts) {
  const std::size_t all = facts.words().size();
  std::vector<Group> groups;
  groups.reserve(all);
  bool inComment = false;
  for (std::size_t index = 0; index < all;) {
    if (!inComment && beginsIndentedComment(facts, index)) {
      groups.push_back({Group::Kind::Comment, index, all - index});
      inComment = true;
    }
    const Group group = groupAt(facts, index, inComment);
    const bool isComment = group.kind == Group::Kind::Comment;
    if (group.kind != Group::Kind::Ignored || !inComment) groups.push_back(group);
    inComment = inComment || isComment;
    index += isComment ? 1 : group.size;
  }
  return groups;
}

// ---- Quotes, backslashes and comments ---------------------------------------------------------

// The first known word that follows a space in quoted text.
std::string_view wordWithin(const EntryFacts& facts, std::string_view text) {
  std::string_view first;
  std::size_t least = text.npos;
  for (const std::string& word : facts.known()) {
    const std::size_t begin = text.find(" " + word + "=");
    if (begin >= least) continue;
    least = begin;
    first = word;
  }
  return first;
}

// Whether the closing quote is in what the reader cut off as a comment: no comment was meant.
bool isCutInQuotes(const EntryFacts& facts) {
  const std::string_view rest = facts.line.rest.of(facts.line.text);
  return rest.starts_with(';') && rest.find(facts.value[*facts.split.openQuote]) != rest.npos;
}

MaybeFinding commentInQuotes(const EntryFacts& facts) {
  if (!facts.split.openQuote || !isCutInQuotes(facts)) return std::nullopt;
  return Finding{
      "comment-in-quotes",
      {facts.line.rest.begin, 1},
      fmt::format("this \";\" begins a comment even inside quotes and leaves the quote open, so {}",
                  facts.consequence),
      "remove the white space before the \";\", or the \";\" itself"};
}

MaybeFinding openQuote(const EntryFacts& facts) {
  if (!facts.split.openQuote || isCutInQuotes(facts)) return std::nullopt;
  const std::size_t open = *facts.split.openQuote;
  const std::size_t unread = facts.words().empty() ? 0 : facts.words().back().place.end();
  const std::size_t first = facts.value.find_first_of("\"'", unread);
  const std::string_view swallowed = wordWithin(facts, facts.value.substr(first));
  if (!swallowed.empty()) {
    return Finding{
        "open-quote", facts.inLine({first, 1}),
        fmt::format("this quote is not closed before {}=, which leaves a quote open at the end of "
                    "the line, so {}",
                    swallowed, facts.consequence),
        fmt::format("close it with {0} before the space in front of {1}=, or write \\{0} for a "
                    "literal quote",
                    facts.value[first], swallowed)};
  }
  return Finding{
      "open-quote", facts.inLine({open, 1}),
      fmt::format("this quote is never closed, so {}", facts.consequence),
      fmt::format("close it with {0}, or write \\{0} for a literal quote", facts.value[open])};
}

MaybeFinding hashComment(const EntryFacts& facts) {
  if (!facts.split.comment) return std::nullopt;
  const std::size_t begin = *facts.split.comment;
  const std::string_view comment = facts.value.substr(begin);
  return Finding{
      "hash-comment", facts.inLine({begin, comment.size()}),
      fmt::format("this \"#\" begins a comment, so the module ignores {}", inQuotes(comment)),
      "put quotes around the word if the \"#\" is part of it, or begin the comment with \" ;\""};
}

MaybeFinding lostBackslash(const EntryFacts& facts) {
  const auto lost = lostBackslashIn(facts.value, facts.split.comment.value_or(facts.value.size()));
  if (!lost || facts.split.openQuote) return std::nullopt;
  if (*lost + 1 == facts.value.size()) {
    return Finding{
        "lost-backslash", facts.inLine({*lost, 1}),
        "this \"\\\" does not join the next line to the entry, and the module ignores it",
        "write the whole entry on one line"};
  }
  return Finding{"lost-backslash", facts.inLine({*lost, 2}),
                 fmt::format("the module removes a \"\\\" outside quotes and reads {} as \"{}\"",
                             inQuotes(facts.value.substr(*lost, 2)), facts.value[*lost + 1]),
                 "put double quotes around the value if the \"\\\" is part of it"};
}

constexpr std::array valueRules = {commentInQuotes, openQuote, hashComment, lostBackslash};

// ---- Words that the module ignores ------------------------------------------------------------

MaybeFinding spacedEquals(const EntryFacts& facts, const Group& group) {
  if (group.kind != Group::Kind::Spaced) return std::nullopt;
  const std::string_view first = facts.words()[group.first].text;
  const bool joined = group.size == 2;
  const Span place = facts.inLine(placeOf(facts, group));
  const std::string_view name = first.substr(0, first.find('='));
  Remedy remedy =
      write(place, fmt::format("{}={}", name, facts.source(group.last())), " without spaces");
  // Without another Key, the module refuses the configuration.
  if (name == "Key" && !facts.has("Key")) remedy = safe(std::move(remedy));
  return Finding{joined ? Rule("word-ends-in-equals") : Rule("word-without-equals"), place,
                 "a space next to \"=\" splits this word, so the module ignores its parts",
                 std::move(remedy), name == "Key" ? Scope::EmptyKey : Scope::Nothing};
}

MaybeFinding wordEndsInEquals(const EntryFacts& facts, const Group& group) {
  const Field& field = facts.fields[group.first];
  if (group.kind != Group::Kind::Ignored || field.shape != Field::Shape::EndingInEquals) {
    return std::nullopt;
  }
  const Span place = facts.inLine(placeOf(facts, group));
  const std::string text = fmt::format("the word {} ends in \"=\", so the module ignores it",
                                       inQuotes(facts.words()[group.first].text));
  if (field.name.empty())
    return Finding{"word-ends-in-equals", place, text, safe(remove(place, "it"))};
  return Finding{"word-ends-in-equals", place, text,
                 fmt::format("write {}=VALUE, or remove it", field.name),
                 field.name == "Key" ? Scope::EmptyKey : Scope::Nothing};
}

MaybeFinding emptyQuotes(const EntryFacts& facts, const Group& group) {
  const bool isEmpty = facts.fields[group.first].shape == Field::Shape::Empty;
  if (group.kind != Group::Kind::Ignored || !isEmpty) return std::nullopt;
  return Finding{"word-without-equals", facts.inLine(placeOf(facts, group)),
                 "these quotes are empty, so the module ignores them",
                 "remove them, or write NAME=VALUE"};
}

MaybeFinding meantAsComment(const EntryFacts& facts, const Group& group) {
  if (group.kind != Group::Kind::Comment) return std::nullopt;
  const std::string_view text = facts.words()[group.first].text;
  const std::size_t begin = facts.words()[group.first].place.begin;
  const Span place = facts.inLine({begin, facts.value.size() - begin});
  if (text.starts_with(';')) {
    return Finding{
        "comment-in-continuation", place,
        "\";\" does not begin a comment in an indented line, so the module reads what follows "
        "as words",
        "put the comment on a line of its own"};
  }
  return Finding{
      "word-without-equals", place,
      fmt::format("{} does not begin a comment, so the module reads what follows as words",
                  inQuotes(text.substr(0, 2))),
      "begin the comment with \" ;\""};
}

// For bare words that follow the word `before`.
Remedy remedyForTail(const EntryFacts& facts, const Group& group) {
  const std::string_view before = facts.source(group.first - 1);
  const std::size_t equals = before.find('=');
  if (beginsCurly(before.substr(std::min(equals, before.size() - 1) + 1))) {
    return "use \" instead of typographic quotes";
  }
  if (equals == before.npos || before.find_first_of("\"'\\") != before.npos) {
    return "remove this, or put quotes around the whole value";
  }
  const std::string_view name = before.substr(0, equals);
  const Span place = placeOf(facts, group);
  const bool isNumber = name == "DefaultValue" && facts.section.type != ValueType::String;
  if (isNumber || name == "Type") {
    return safe(remove(facts.inLine(place), group.size == 1 ? "it" : "them"));
  }
  const std::size_t begin = facts.words()[group.first - 1].place.begin;
  return write(facts.inLine({begin, place.end() - begin}),
               fmt::format("{}=\"{} {}\"", name, before.substr(equals + 1), place.of(facts.value)),
               " if that is the whole value");
}

Remedy remedyForBareWords(const EntryFacts& facts, const Group& group) {
  const std::string& text = facts.words()[group.first].text;
  const std::size_t colon = text.find(':');
  const Span place = facts.inLine(placeOf(facts, group));
  if (const auto name = facts.sameAs(text.substr(0, colon)); !name.empty()) {
    const bool hasValue = colon != text.npos && colon + 1 < text.size();
    if (hasValue) return write(place, fmt::format("{}={}", name, text.substr(colon + 1)));
    if (group.size == 1) return fmt::format("write {}=VALUE", name);
    return write(place, fmt::format("{}={}", name, facts.words()[group.first + 1].text));
  }
  if (facts.isMeter() && isRate(text)) {
    return write(place, fmt::format("Type={}", sameName(text, "fast") ? "fast" : "slow"),
                 " if that is the rate");
  }
  if (group.first > 0) return remedyForTail(facts, group);
  const std::string_view all = placeOf(facts, group).of(facts.value);
  return write(place, group.size > 1 ? fmt::format("Key=\"{}\"", all) : fmt::format("Key={}", text),
               " if that is the key");
}

MaybeFinding bareWords(const EntryFacts& facts, const Group& group) {
  const bool isBare = facts.fields[group.first].shape == Field::Shape::WithoutEquals;
  if (group.kind != Group::Kind::Ignored || !isBare) return std::nullopt;
  const Span place = placeOf(facts, group);
  Remedy remedy = remedyForBareWords(facts, group);
  const bool isKey = remedy.edit && remedy.edit->text.starts_with("Key=");
  return Finding{"word-without-equals", facts.inLine(place),
                 group.size == 1
                     ? fmt::format("the word {} has no \"=\", so the module ignores it",
                                   inQuotes(facts.words()[group.first].text))
                     : fmt::format("the words {} have no \"=\", so the module ignores them",
                                   inQuotes(place.of(facts.value))),
                 std::move(remedy), isKey ? Scope::EmptyKey : Scope::Nothing};
}

// ---- Words that the module refuses ------------------------------------------------------------

Remedy remedyForUnknownWord(const EntryFacts& facts, const Group& group) {
  const Field& field = facts.fields[group.first];
  const auto& known = facts.known();
  const Span word = facts.inLine(facts.words()[group.first].place);
  const Span name{word.begin, std::min(word.size, field.name.size())};
  // The name as the line has it, without quotes; otherwise the edit would be a guess.
  const bool isLiteral = name.of(facts.line.text) == field.name;
  if (field.name.empty() && group.first > 0 && facts.knows(facts.words()[group.first - 1].text)) {
    const std::size_t begin = facts.inLine(facts.words()[group.first - 1].place).begin;
    return write({begin, word.end() - begin},
                 fmt::format("{}={}", facts.words()[group.first - 1].text, field.value),
                 " without spaces");
  }
  if (facts.source(group.first).starts_with('\\')) {
    return {"remove the \"\\\", which joins the word to what follows", {word.begin, 1}, {}};
  }
  if (const auto same = facts.sameAs(field.name); !same.empty()) {
    Remedy remedy = write(name, std::string(same), ": case matters");
    if (!isLiteral) remedy.edit.reset();
    return facts.has(same) ? remedy : safe(std::move(remedy));
  }
  const auto begun = std::find_if(known.begin(), known.end(), [&](const std::string& each) {
    return field.name.size() > 2 && sameName(each.substr(0, field.name.size()), field.name);
  });
  const bool isOfMeters = !sameNameIn(field.name, wordsOf(SectionKind::MeterEntries)).empty();
  if (begun == known.end() && isOfMeters) {
    return remove(word, "it: a parameter has neither a rate nor a default");
  }
  if (begun == known.end() && sameName(field.name, "Name")) {
    return "write Key=, or CustomKey= for the slot name";
  }
  const std::string close = begun != known.end() ? *begun : closestName(field.name, known);
  if (close.empty()) {
    return fmt::format("a {} accepts {}", facts.section.keys.front(), fmt::join(known, ", "));
  }
  Remedy remedy = ask({name.begin, name.size + 1}, close + "=");
  if (!isLiteral) remedy.edit.reset();
  return remedy;
}

MaybeFinding unknownWord(const EntryFacts& facts, const Group& group) {
  if (group.kind != Group::Kind::Refused) return std::nullopt;
  const Word& word = facts.words()[group.first];
  const Field& field = facts.fields[group.first];
  const Span place = facts.inLine(word.place);
  const std::string what =
      field.name.empty()
          ? fmt::format("the word {} has no name before its \"=\"", inQuotes(word.text))
          : fmt::format("a {} does not accept the word {}", facts.section.keys.front(),
                        inQuotes(field.name));
  return Finding{
      "unknown-word",
      {place.begin, field.name.empty() ? place.size : std::min(place.size, field.name.size())},
      fmt::format("{}, so {}", what, facts.consequence),
      remedyForUnknownWord(facts, group)};
}

constexpr std::array groupRules = {meantAsComment, spacedEquals, wordEndsInEquals,
                                   emptyQuotes,    bareWords,    unknownWord};

// ---- Known words ------------------------------------------------------------------------------

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

struct WordFacts {
  const EntryFacts& entry;
  const Word& word;
  const Field& field;
  const Field* earlier;          // the last word before it with the same name, or null
  std::optional<Number> number;  // of the default of a slot that holds a number

  // In the line.
  Span place() const { return entry.inLine(placeOfValue(entry.value, word)); }
  bool isName() const { return field.name == "Key" || field.name == "CustomKey"; }
  bool isRead() const { return number && number->state == Number::State::Read; }
};

MaybeFinding repeatedWord(const WordFacts& facts) {
  if (facts.earlier == nullptr) return std::nullopt;
  return Finding{
      "repeated-word", facts.entry.inLine(facts.word.place),
      fmt::format("{} appears twice and the last one wins, so it is {}, not {}", facts.field.name,
                  inQuotes(facts.field.value), inQuotes(facts.earlier->value)),
      "remove the one that you do not want"};
}

// The known word at the end of the text, probably meant as the beginning of the next word.
std::string_view wordAtEnd(const EntryFacts& facts, std::string_view text) {
  std::string_view longest;
  for (const std::string& word : facts.known()) {
    if (!text.ends_with(word) || word.size() <= longest.size()) continue;
    const std::string_view before = text.substr(0, text.size() - word.size());
    // "MonKey" is a word of its own, not "Mon" and Key.
    const bool isApart =
        before.empty() || std::isalnum(static_cast<unsigned char>(before.back())) == 0;
    if (isApart || word != "Key") longest = word;
  }
  return longest;
}

Remedy remedyForSecondEquals(const WordFacts& facts) {
  const Field& field = facts.field;
  if (field.dropped.find_first_of(",;") != field.dropped.npos ||
      field.value.find_first_of(",;") != field.value.npos) {
    return "separate words with spaces, not with \",\" or \";\"";
  }
  const std::string_view next = wordAtEnd(facts.entry, field.value);
  if (next.empty()) return "choose a value without \"=\"";
  const std::size_t before = field.value.size() - next.size();
  if (before > 0 && isBlank(field.value[before - 1])) {
    return fmt::format("quote each value separately, so that {}= is outside the quotes", next);
  }
  return fmt::format("write a space before {}=", next);
}

MaybeFinding secondEquals(const WordFacts& facts) {
  const Field& field = facts.field;
  if (field.shape != Field::Shape::Cut) return std::nullopt;
  return Finding{
      "text-after-second-equals", facts.place(),
      fmt::format("the value ends at the second \"=\", so {} is {} and the module drops {}",
                  field.name, inQuotes(field.value), inQuotes(field.dropped)),
      remedyForSecondEquals(facts)};
}

MaybeFinding curlyQuote(const WordFacts& facts) {
  const std::string_view value = facts.entry.value;
  if (facts.word.text.find(curlyLead) == std::string::npos) return std::nullopt;
  if (!beginsCurly(placeOfValue(value, facts.word).of(value))) return std::nullopt;
  return Finding{
      "curly-quote", facts.place(),
      "typographic quotes are ordinary characters here, so they become part of the value",
      "use \" instead"};
}

MaybeFinding unknownType(const WordFacts& facts) {
  const std::string_view value = facts.field.value;
  if (facts.field.name != "Type" || value == "fast" || value == "slow") return std::nullopt;
  constexpr std::array<std::string_view, 6> valueTypes = {"string", "int",    "uint",
                                                          "float",  "double", "text"};
  static const std::vector<std::string> rates = {"fast", "slow"};
  const auto same = sameNameIn(value, rates);
  const std::string close = closestName(value, rates);
  const bool isValueType =
      std::any_of(valueTypes.begin(), valueTypes.end(),
                  [&](std::string_view each) { return sameName(each, value); });
  Remedy remedy = "write Type=fast or Type=slow";
  const Span word = facts.entry.inLine(facts.word.place);
  if (!same.empty())
    remedy = safe(write(word, fmt::format("Type={}", same), ", in lower case"));
  else if (!close.empty())
    remedy = ask(word, fmt::format("Type={}", close));
  else if (isValueType)
    remedy.words += "; the value type comes from the section";
  return Finding{
      "unknown-type", facts.place(),
      fmt::format("{} is not a valid Type, so {}", inQuotes(value), facts.entry.consequence),
      remedy};
}

// ---- Defaults ---------------------------------------------------------------------------------

// What the module reads, as text.
std::string readText(const Number& number, ValueType type) {
  if (type == ValueType::Float) return fmt::format("{}", number.fraction);
  if (type == ValueType::Int) return std::to_string(number.integer);
  return std::to_string(static_cast<std::uint32_t>(number.whole));
}

MaybeFinding defaultNotFinite(const WordFacts& facts) {
  if (!facts.isRead() || std::isfinite(facts.number->fraction)) return std::nullopt;
  return Finding{"default-not-finite", facts.place(),
                 fmt::format("the default {} is not a finite number, and the slot holds it until a "
                             "value arrives",
                             inQuotes(facts.field.value)),
                 "write a number"};
}

std::string_view adviceForRange(ValueType type) {
  if (type == ValueType::Int) return "write a number from -2147483648 to 2147483647";
  if (type == ValueType::Uint) return "write a number from 0 to 4294967295";
  return "write 0, or a number that fits a 32-bit float";
}

MaybeFinding badDefault(const WordFacts& facts) {
  if (!facts.number || facts.isRead()) return std::nullopt;
  const ValueType type = facts.entry.section.type;
  const std::string value = inQuotes(facts.field.value);
  switch (facts.number->state) {
    case Number::State::Read:
      break;
    case Number::State::NotANumber:
      return Finding{
          "bad-default", facts.place(),
          fmt::format("the default {} is not a number, so {}", value, facts.entry.consequence),
          "write a number, or move the entry to [MetersString]"};
    case Number::State::OutOfRange:
      return Finding{"bad-default", facts.place(),
                     fmt::format("the default {} is out of range for {}, so {}", value,
                                 withArticle(type), facts.entry.consequence),
                     std::string(adviceForRange(type))};
  }
  return std::nullopt;
}

// For text after a number.
Remedy remedyForRest(const WordFacts& facts) {
  const std::string_view rest = facts.field.value.substr(facts.number->used);
  const bool isWhole = facts.entry.section.type != ValueType::Float;
  if (rest == "," || rest == ";") {
    const Span last{facts.place().end() - 1, 1};
    Remedy remedy = remove(last, fmt::format("the \"{}\"", rest));
    if (last.of(facts.entry.line.text) != rest) remedy.edit.reset();
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

MaybeFinding trailingText(const WordFacts& facts) {
  if (!facts.isRead() || facts.number->used == facts.field.value.size()) return std::nullopt;
  return Finding{
      "trailing-text", facts.place(),
      fmt::format("the module reads only the number at the beginning of {}, so the default is {}",
                  inQuotes(facts.field.value), readText(*facts.number, facts.entry.section.type)),
      remedyForRest(facts)};
}

MaybeFinding unsignedRange(const WordFacts& facts) {
  if (!facts.isRead() || facts.entry.section.type != ValueType::Uint) return std::nullopt;
  const std::string_view text = facts.field.value;
  const Number& number = *facts.number;
  const bool isNegative = text.find('-') < text.find_first_of("0123456789");
  const bool fits = number.whole <= std::numeric_limits<std::uint32_t>::max();
  if (fits && (!isNegative || number.whole == 0)) return std::nullopt;
  return Finding{"unsigned-range", facts.place(),
                 fmt::format("an unsigned default keeps only its low 32 bits, so {} becomes {}",
                             inQuotes(text), readText(number, ValueType::Uint)),
                 "write a number from 0 to 4294967295, or move the entry to [MetersInt]"};
}

MaybeFinding longDefault(const WordFacts& facts) {
  if (facts.field.name != "DefaultValue" || facts.number) return std::nullopt;
  if (facts.field.value.size() <= tools::slotTextLimit) return std::nullopt;
  return Finding{"long-default", facts.place(),
                 fmt::format("the default has {} bytes, but the slot keeps only the first {}",
                             facts.field.value.size(), tools::slotTextLimit),
                 "shorten it"};
}

// ---- Names ------------------------------------------------------------------------------------

MaybeFinding keyNotUtf8(const WordFacts& facts) {
  if (facts.field.name != "Key" || isUtf8(facts.field.value)) return std::nullopt;
  return Finding{
      "key-not-utf8", facts.place(),
      fmt::format("the key {} is not valid UTF-8, so {}", inQuotes(facts.field.value),
                  facts.entry.isMeter() ? "no meter can have it and the slot keeps its default"
                                        : "the engine service can't read a call that contains it"),
      "save the file as UTF-8, or correct the key"};
}

MaybeFinding trailingComma(const WordFacts& facts) {
  const std::string_view name = facts.field.value;
  if (!facts.isName() || !(name.ends_with(',') || name.ends_with(';'))) return std::nullopt;
  const Span last{facts.place().end() - 1, 1};
  Remedy remedy = remove(last, fmt::format("the \"{}\"", name.back()));
  // Of a quoted word, the last character in the line is the quote.
  if (last.of(facts.entry.line.text).front() != name.back()) remedy.edit.reset();
  return Finding{"trailing-comma", facts.place(),
                 fmt::format("{} {} ends in \"{}\", which is part of the name", facts.field.name,
                             inQuotes(name), name.back()),
                 std::move(remedy)};
}

MaybeFinding controlCharacter(const WordFacts& facts) {
  if (!facts.isName() || !hasUnseenCharacter(facts.field.value)) return std::nullopt;
  return Finding{"control-character", facts.place(),
                 fmt::format("{} {} contains an invisible character, which is part of the name",
                             facts.field.name, inQuotes(facts.field.value)),
                 "remove it, or replace it with a space"};
}

MaybeFinding blanksAroundName(const WordFacts& facts) {
  const std::string_view name = facts.field.value;
  if (!facts.isName() || name.empty() || (!isBlank(name.front()) && !isBlank(name.back()))) {
    return std::nullopt;
  }
  return Finding{"outer-blanks", facts.place(),
                 fmt::format("{} {} begins or ends with white space, which is part of the name",
                             facts.field.name, inQuotes(name)),
                 "remove the white space inside the quotes"};
}

constexpr std::array wordRules = {repeatedWord,    secondEquals,  curlyQuote,    unknownType,
                                  badDefault,      unsignedRange, trailingText,  defaultNotFinite,
                                  longDefault,     keyNotUtf8,    trailingComma, controlCharacter,
                                  blanksAroundName};

// ---- The entry --------------------------------------------------------------------------------

void apply(const WordFacts& facts, Entry& entry) {
  const Field& field = facts.field;
  if (field.name == "Type") entry.isSlow = field.value == "slow";
  if (!facts.isName()) return;
  const bool isKey = field.name == "Key";
  (isKey ? entry.key : entry.customKey) = field.value;
  (isKey ? entry.keyPlace : entry.customKeyPlace) = facts.place();
}

const Field* earlierField(const EntryFacts& facts, const std::vector<Group>& groups,
                          std::size_t index) {
  const Field* found = nullptr;
  for (const Group& group : groups) {
    if (group.first >= index) break;
    const Field& field = facts.fields[group.first];
    const bool isSame = field.name == facts.fields[index].name;
    if (group.kind == Group::Kind::Known && isSame) found = &field;
  }
  return found;
}

}  // namespace

JudgedEntry judgeEntry(const Section& section, const Line& line, const SourceFile& file) {
  const EntryFacts facts = factsOf(section, line, file);
  std::vector<Finding> findings;
  const auto add = [&](MaybeFinding&& finding) {
    if (finding) findings.push_back(*std::move(finding));
  };
  const Span whole = line.value.size > 0 ? line.value : line.body;
  Entry entry{.place = whole, .keyPlace = whole, .customKeyPlace = whole};
  const std::vector<Group> groups = facts.split.openQuote ? std::vector<Group>() : groupsOf(facts);
  for (const Group& group : groups) {
    for (const auto rule : groupRules) add(rule(facts, group));
    if (group.kind != Group::Kind::Known) continue;
    const Field& field = facts.fields[group.first];
    WordFacts word{
        facts, facts.words()[group.first], field, earlierField(facts, groups, group.first), {}};
    if (field.name == "DefaultValue" && section.type != ValueType::String) {
      word.number = numberIn(std::string(field.value), section.type);
    }
    for (const auto rule : wordRules) add(rule(word));
    apply(word, entry);
  }
  for (const auto rule : valueRules) add(rule(facts));
  const bool isRefused = std::any_of(findings.begin(), findings.end(), [](const Finding& each) {
    return each.rule.text().weight == Weight::LineError;
  });
  return {isRefused ? std::nullopt : std::optional(std::move(entry)), std::move(findings)};
}

}  // namespace check
