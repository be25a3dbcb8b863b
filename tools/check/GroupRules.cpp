#include "tools/check/GroupRules.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <array>
#include <string>
#include <string_view>
#include <utility>

#include "tools/check/Text.h"

namespace check {
namespace {

// ---- Groups -----------------------------------------------------------------------------------

Span placeOf(const EntryFacts& facts, const Group& group) {
  const std::size_t begin = facts.words()[group.first].place.begin;
  return {begin, facts.words()[group.last()].place.end() - begin};
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
  const std::string_view text = facts.words()[index].text;
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
  const std::string_view text = facts.words()[group.first].text;
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

constexpr std::array<GroupRule, 6> groupRuleTable = {meantAsComment, spacedEquals, wordEndsInEquals,
                                                     emptyQuotes,    bareWords,    unknownWord};

}  // namespace

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

std::span<const GroupRule> groupRules() {
  return groupRuleTable;
}

}  // namespace check
