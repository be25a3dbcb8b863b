#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "tools/check/EntryWords.h"
#include "tools/common/Json.h"
#include "tools/lsp/Descriptions.h"
#include "tools/lsp/Features.h"
#include "tools/lsp/Lines.h"

namespace lsp {
namespace {

using check::LineKind;
using check::SectionKind;

bool isEntrySection(const check::Section& section) {
  return section.kind == SectionKind::MeterEntries || section.kind == SectionKind::EngineEntries;
}

// ---- What the line becomes --------------------------------------------------------------------

std::string textOf(const tools::ConfiguredSlot& slot) {
  const bool isEngine = slot.set == standin::SlotSet::Engine;
  return fmt::format(
      "`{}`: the {} {} slot at position {} of its list{}; its key is `{}`", slot.name,
      standin::nameOf(slot.set), gateway::nameOf(slot.type), slot.position,
      isEngine
          ? ""
          : fmt::format(", with the default {}", tools::jsonText(tools::jsonOf(slot.defaultValue))),
      slot.key);
}

// A line of a dedicated file that is named twice becomes several slots.
void addSlots(std::vector<std::string>& parts, const Document& document, std::size_t line,
              Checks& checks) {
  for (const Document* root : checks.rootsOf(document)) {
    const check::Checked& checked = checks.of(*root);
    const bool isRefused = checked.verdict == check::Verdict::Refused;
    for (const check::EntryPlace& entry : checked.entries) {
      if (entry.line != line || !Checks::names(checked.files[entry.file], document)) continue;
      const auto slot =
          std::find_if(checked.slots.begin(), checked.slots.end(), [&](const auto& each) {
            return each.set == entry.set && each.type == entry.type &&
                   each.position == entry.position;
          });
      if (slot == checked.slots.end()) continue;
      parts.push_back(textOf(*slot) +
                      (isRefused ? ", once the module accepts the configuration" : ""));
    }
  }
}

// ---- What the word means ----------------------------------------------------------------------

std::string describeWordAt(const Lines& lines, std::size_t column) {
  const std::string_view value = lines.textOf(lines.line().value);
  for (const check::Word& word : check::entryWordsOf(value).words) {
    const std::size_t begin = lines.line().value.begin + word.place.begin;
    if (column < begin || column >= begin + word.place.size) continue;
    const check::Field field = check::fieldOf(word.text);
    const std::string meaning = describeWord(field.name);
    return meaning.empty() ? meaning : fmt::format("`{}=`: {}", field.name, meaning);
  }
  return {};
}

std::string describeAt(const Lines& lines, std::size_t column) {
  const check::Line& line = lines.line();
  const check::Section& section = lines.section();
  if (line.kind == LineKind::Header) return describeSection(section.name);
  const std::string_view key = lines.key();
  const bool isInValue = column >= line.value.begin && column < line.value.end();
  if (isInValue && isEntrySection(section)) return describeWordAt(lines, column);
  const std::string meaning = describeKey(section.name, key);
  return meaning.empty() ? meaning : fmt::format("`{}`: {}", key, meaning);
}

// ---- Which rules are broken -------------------------------------------------------------------

void addRules(std::vector<std::string>& parts, const Document& document, std::size_t offset,
              Checks& checks, const Client& client) {
  std::vector<check::Rule> rules;
  for (const Shown& shown : diagnosticsOf(document, checks, client)) {
    const auto [begin, end] = document.offsetsOf(shown.json.at("range"));
    const check::Rule rule = shown.diagnostic.rule;
    const bool isHere = shown.diagnostic.line > 0 && begin <= offset && offset <= end;
    if (!isHere || std::find(rules.begin(), rules.end(), rule) != rules.end()) continue;
    rules.push_back(rule);
    parts.push_back(
        fmt::format("{}: {}.{}", rule.text().name, rule.text().summary, rule.text().explanation));
  }
}

}  // namespace

Json hover(const Document& document, Checks& checks, const Client& client, const Json& params) {
  const std::size_t offset = document.offsetOf(params.at("position"));
  const auto lines = linesUpTo(document, offset);
  if (!lines) return nullptr;
  const check::Line& line = lines->line();
  std::vector<std::string> parts;
  addSlots(parts, document, line.number, checks);
  const std::size_t begin = lines->offsetOf(0);
  if (std::string text = describeAt(*lines, offset - std::min(begin, offset)); !text.empty()) {
    parts.push_back(std::move(text));
  }
  addRules(parts, document, offset, checks, client);
  if (parts.empty()) return nullptr;
  return {{"contents",
           {{"kind", client.readsMarkdown ? "markdown" : "plaintext"},
            {"value", fmt::format("{}", fmt::join(parts, "\n\n"))}}},
          {"range", document.rangeOf(begin + line.body.begin, begin + line.body.end())}};
}

}  // namespace lsp
