#include "tools/check/EntryRules.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <utility>

#include "tools/check/DefaultRules.h"
#include "tools/check/EntryFacts.h"
#include "tools/check/GroupRules.h"
#include "tools/check/Text.h"

namespace check {
namespace {

EntryFacts factsOf(const Section& section, const Line& line, const SourceFile& file) {
  const std::string_view value = line.value.of(line.text);
  EntryFacts facts{section, line, consequenceIn(file), value, entryWordsOf(value), {}};
  facts.fields.reserve(facts.words().size());
  for (const Word& word : facts.words()) facts.fields.push_back(fieldOf(word.text));
  return facts;
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

// ---- Known words ------------------------------------------------------------------------------

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
  constexpr char lead = '\xE2';  // the first byte of each typographic quote
  if (facts.word.text.find(lead) == std::string::npos) return std::nullopt;
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

constexpr std::array wordRules = {repeatedWord, secondEquals,  curlyQuote,       unknownType,
                                  keyNotUtf8,   trailingComma, controlCharacter, blanksAroundName};

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
    for (const GroupRule rule : groupRules()) add(rule(facts, group));
    if (group.kind != Group::Kind::Known) continue;
    const Field& field = facts.fields[group.first];
    const WordFacts word{facts, facts.words()[group.first], field,
                         earlierField(facts, groups, group.first)};
    for (const auto rule : wordRules) add(rule(word));
    if (field.name == "DefaultValue") judgeDefault(word, findings);
    apply(word, entry);
  }
  for (const auto rule : valueRules) add(rule(facts));
  const bool isRefused = std::any_of(findings.begin(), findings.end(), [](const Finding& each) {
    return each.rule.text().weight == Weight::LineError;
  });
  return {isRefused ? std::nullopt : std::optional(std::move(entry)), std::move(findings)};
}

}  // namespace check
