#include "tools/check/LineRules.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <array>

#include "tools/check/EntryWords.h"
#include "tools/check/Text.h"

namespace check {
namespace {

bool isEntrySection(const Section& section) {
  return section.kind == SectionKind::MeterEntries || section.kind == SectionKind::EngineEntries;
}

bool isSettings(const Section& section) {
  return section.kind == SectionKind::Meters || section.kind == SectionKind::Engine;
}

bool isKnown(const Section* section) {
  return section != nullptr && section->kind != SectionKind::Unknown;
}

// The keys that the line may have; all keys if its section is unknown.
const std::vector<std::string>& keysFor(const LineFacts& facts) {
  return isKnown(facts.section) ? facts.section->keys : allKeys();
}

// The key at the beginning of `name`, if a separator and more text follow it.
std::string_view keyAtBegin(std::string_view name, const std::vector<std::string>& keys) {
  for (const std::string& key : keys) {
    if (name.size() <= key.size() || !sameName(name.substr(0, key.size()), key)) continue;
    const char next = name[key.size()];
    if (isBlank(next) || next == ':') return key;
  }
  return {};
}

// What was probably meant as the value in a text that begins with `key`.
std::string_view valueAfter(std::string_view text, std::string_view key) {
  text.remove_prefix(key.size());
  while (!text.empty() && (isBlank(text.front()) || text.front() == ':')) text.remove_prefix(1);
  return text;
}

constexpr const char* remedyForComment = "begin a comment with \";\"";

bool looksLikeComment(std::string_view text) {
  return text.starts_with("//") || text.starts_with("--");
}

// ---- The form of a line -----------------------------------------------------------------------

MaybeFinding nulByte(const LineFacts& facts) {
  if (!facts.line.hasNul) return std::nullopt;
  return Finding{"nul-byte",
                 {facts.line.text.size(), 1},
                 "the module ignores the rest of a line after a NUL byte (reported once per file)",
                 "save the file as UTF-8 text"};
}

MaybeFinding longLine(const LineFacts& facts) {
  const Line& line = facts.line;
  const bool matters = line.kind != LineKind::Blank && line.kind != LineKind::Comment;
  if (!line.isTail || !matters) return std::nullopt;
  return Finding{
      "long-line",
      {0, line.text.size()},
      fmt::format("the line has more than {} bytes, so the module reads the rest, from here on, as "
                  "another line",
                  Scanner::chunkSize),
      "shorten the line",
      Scope::Line};
}

Remedy remedyForOpenHeader(const LineFacts& facts) {
  const std::string_view name = facts.body().substr(1);
  Remedy remedy("close it, as in [Meters]", {facts.line.body.end(), 0}, "]");
  if (sectionOf(name).kind == SectionKind::Unknown) remedy.edit.reset();
  return safe(std::move(remedy));
}

MaybeFinding badHeader(const LineFacts& facts) {
  if (facts.line.kind != LineKind::BadHeader) return std::nullopt;
  const bool isCut = facts.body().find(']') != std::string_view::npos;
  return Finding{
      "bad-header", facts.line.body,
      fmt::format("{}, so the lines below {}, and {}",
                  isCut ? "a \" ;\" begins a comment before the \"]\" of this header"
                        : "this header has no \"]\"",
                  facts.section != nullptr ? "stay in the previous section" : "are in no section",
                  consequenceIn(facts.file)),
      isCut ? "remove the \";\"" : remedyForOpenHeader(facts)};
}

Remedy remedyForBadLine(const LineFacts& facts) {
  const std::string_view body = facts.body();
  const auto& keys = keysFor(facts);
  if (beginsUnseen(body)) return "remove the invisible character at the beginning";
  if (const auto key = sameNameIn(body, keys); !key.empty()) {
    return fmt::format("write {}=VALUE", key);
  }
  if (const auto key = keyAtBegin(body, keys); !key.empty()) {
    const std::string_view value = valueAfter(body, key);
    if (value.starts_with(';')) return fmt::format("write {}=VALUE", key);
    return write(facts.line.body, fmt::format("{}={}", key, value));
  }
  return "write NAME=VALUE, or begin a comment with \";\"";
}

MaybeFinding badLine(const LineFacts& facts) {
  if (facts.line.kind != LineKind::BadPair) return std::nullopt;
  const bool isCut = facts.body().find('=') != std::string_view::npos;
  return Finding{"bad-line", facts.line.body,
                 fmt::format("this line is not a pair, because it has no \"=\"{}, so {}",
                             isCut ? " before its comment" : "", consequenceIn(facts.file)),
                 remedyForBadLine(facts)};
}

// ---- Indented lines ---------------------------------------------------------------------------

// Whether the value has words of an entry but no Key: probably a second line of the entry above.
bool isRestOfEntry(std::string_view value) {
  std::size_t found = 0;
  for (const Word& word : entryWordsOf(value).words) {
    const Field field = fieldOf(word.text);
    if (!field.isRead()) continue;
    if (!isWordOf(SectionKind::MeterEntries, field.name) || field.name == "Key") return false;
    ++found;
  }
  return found > 0;
}

std::string_view leadingName(std::string_view text) {
  std::string_view name = text.substr(0, text.find_first_of("=:"));
  while (!name.empty() && isBlank(name.back())) name.remove_suffix(1);
  return name.size() < text.size() ? name : std::string_view();
}

// What an indented line looks like, as part of a sentence; empty if it looks like a value.
std::string_view looksOf(std::string_view text) {
  if (text.starts_with('[') && text.find(']') != text.npos) return "not a header but ";
  return sameNameIn(leadingName(text), allKeys()).empty() ? "" : "not a pair but ";
}

std::string_view effectOf(const LineFacts& facts) {
  const std::string_view key = facts.pendingKey;
  const bool isSwitch = sameName(key, "EnableFastMeters") || sameName(key, "EnableSlowMeters");
  if (sameNameIn(key, keysFor(facts)).empty()) return "it is just as wrong";
  if (isEntryKey(key)) return "it adds an entry";
  if (sameName(key, "File")) return "it adds a file";
  if (!isSwitch) return "it replaces that value";
  return sameName(facts.body(), "true") ? "it switches the meters on"
                                        : "it switches the meters off";
}

Remedy remedyForIndented(const LineFacts& facts, bool isEntry) {
  constexpr std::size_t longest = 40;
  const Line& line = facts.line;
  if (!isEntry) return {"remove the indentation", {0, line.body.begin}, {}};
  return {fmt::format("remove the indentation and write {}={}", facts.pendingKey,
                      facts.body().size() <= longest ? facts.body() : "..."),
          {0, line.body.begin},
          fmt::format("{}=", facts.pendingKey)};
}

MaybeFinding indentedLine(const LineFacts& facts) {
  if (facts.line.kind != LineKind::Continuation) return std::nullopt;
  const std::string_view looks = looksOf(facts.body());
  const bool isEntry = looks.empty() && isEntryKey(facts.pendingKey);
  const Span place{0, facts.line.body.end()};
  if (isEntry && isRestOfEntry(facts.body())) {
    return Finding{"indented-line", place,
                   fmt::format("this indented line does not continue the entry in {}: it adds an "
                               "entry without a Key",
                               facts.pendingLine),
                   fmt::format("append it to the entry in {}", facts.pendingLine), Scope::Line};
  }
  return Finding{"indented-line", place,
                 fmt::format("this indented line is {}another value of {} in {}: {}", looks,
                             inQuotes(facts.pendingKey), facts.pendingLine, effectOf(facts)),
                 remedyForIndented(facts, isEntry), looks.empty() ? Scope::Nothing : Scope::Line};
}

// ---- Keys -------------------------------------------------------------------------------------

MaybeFinding pairOutsideSection(const LineFacts& facts) {
  const LineKind kind = facts.line.kind;
  if (facts.section != nullptr) return std::nullopt;
  if (kind != LineKind::Pair && kind != LineKind::Continuation) return std::nullopt;
  return Finding{
      "pair-outside-section", facts.line.body,
      fmt::format("there is no section header above this line, so {}", consequenceIn(facts.file)),
      looksLikeComment(facts.body()) ? remedyForComment : "put a header such as [Meters] above it"};
}

// Whether the line has a key that its section does not accept. A continuation line does not count,
// since the pair that it continues is reported.
bool hasUnknownKey(const LineFacts& facts) {
  return facts.line.kind == LineKind::Pair && isKnown(facts.section) && !isKeyKnown(facts);
}

Span placeOfKey(const Line& line) {
  return line.name.size > 0 ? line.name : line.body;
}

std::string_view consequenceOfKey(const LineFacts& facts) {
  return facts.section->kind == SectionKind::Condition ? "the module skips the line"
                                                       : consequenceIn(facts.file);
}

MaybeFinding earlySeparator(const LineFacts& facts) {
  if (!hasUnknownKey(facts)) return std::nullopt;
  const Section& section = *facts.section;
  const auto meant = keyAtBegin(facts.key(), section.keys);
  if (meant.empty()) return std::nullopt;
  const bool isCondition = section.kind == SectionKind::Condition;
  const std::string_view value = valueAfter(facts.body(), meant);
  const bool isLiteral = isSettings(section) || isCondition;
  return Finding{isCondition ? Rule("stray-key") : Rule("early-separator"), placeOfKey(facts.line),
                 fmt::format("the first {} ends the name, so the name is {}, and {}",
                             facts.body().find('=') != std::string_view::npos ? "\"=\"" : "\":\"",
                             inQuotes(facts.key()), consequenceOfKey(facts)),
                 safe(write(facts.line.body,
                            fmt::format("{}={}", meant, isLiteral ? unquoted(value) : value)))};
}

// What to write for a key that belongs in another section.
std::string adviceForMove(const Section& section, std::string_view key, std::string_view value) {
  const bool isMeter = key == "Meter";
  const std::string_view kind = isMeter ? "Meters" : "Engine";
  if (isEntrySection(section) && isEntryKey(key)) {
    return fmt::format("write {}={} if it is a {}, or move it to [{}{}]", section.keys.front(),
                       value, isMeter ? "parameter" : "meter", kind,
                       section.name.substr(kind.size()));
  }
  if (isEntryKey(key))
    return fmt::format("move it to [{0}String], [{0}Int], [{0}Uint] or [{0}Float]", kind);
  if (key == "Target") return "move it to [Meters] or [Engine]";
  if (key == "File") return "move it to a [ParseIfExist:PATH] section";
  return "move it to [Meters]";
}

Remedy remedyForKey(const LineFacts& facts) {
  const Section& section = *facts.section;
  const Line& line = facts.line;
  if (looksLikeComment(facts.key())) {
    return safe({remedyForComment, {line.body.begin, 0}, "; "});
  }
  const auto word = sameNameIn(facts.key(), wordsOf(section.kind));
  if (isEntrySection(section) && word == "Key") {
    const Span pair{line.name.begin, line.value.end() - line.name.begin};
    return safe(write(pair, fmt::format("{}={}={}", section.keys.front(), word, facts.value())));
  }
  if (isEntrySection(section) && !word.empty()) {
    return fmt::format("append {}={} to its entry, on the same line", word, facts.value());
  }
  if (const auto elsewhere = sameNameIn(facts.key(), allKeys()); !elsewhere.empty()) {
    return adviceForMove(section, elsewhere, facts.value());
  }
  if (const std::string close = closestName(facts.key(), section.keys); !close.empty()) {
    return ask(placeOfKey(line), close);
  }
  return fmt::format("the section accepts {}", fmt::join(section.keys, ", "));
}

MaybeFinding unknownKey(const LineFacts& facts) {
  if (!hasUnknownKey(facts)) return std::nullopt;
  const Section& section = *facts.section;
  if (!keyAtBegin(facts.key(), section.keys).empty()) return std::nullopt;
  const bool isCondition = section.kind == SectionKind::Condition;
  return Finding{
      isCondition ? Rule("stray-key") : Rule("unknown-key"), placeOfKey(facts.line),
      fmt::format("{} does not accept the key {}, so {}",
                  isCondition ? "a ParseIfExist: section" : fmt::format("[{}]", section.name),
                  inQuotes(facts.key()), consequenceOfKey(facts)),
      remedyForKey(facts)};
}

constexpr std::array<LineRule, 8> rules = {{{nulByte, Repeats::OncePerFile},
                                            {longLine, Repeats::OncePerLine},
                                            {badHeader, Repeats::OncePerLine},
                                            {badLine, Repeats::OncePerLine},
                                            {indentedLine},
                                            {pairOutsideSection, Repeats::OncePerFile},
                                            {earlySeparator},
                                            {unknownKey}}};

}  // namespace

std::string_view LineFacts::key() const {
  return line.kind == LineKind::Continuation ? pendingKey : line.name.of(line.text);
}

bool isKeyKnown(const LineFacts& facts) {
  return isKnown(facts.section) && !sameNameIn(facts.key(), facts.section->keys).empty();
}

bool looksLikeTarget(const LineFacts& facts) {
  if (!isKnown(facts.section)) return sameName(facts.line.name.of(facts.line.text), "Target");
  const std::string_view key = facts.key();
  return hasUnknownKey(facts) &&
         !closestName(key.substr(0, key.find_first_of(" \t:")), {"Target"}).empty();
}

std::span<const LineRule> lineRules() {
  return rules;
}

}  // namespace check
