#include <string>
#include <utility>

#include "tools/check/EntryRules.h"
#include "tools/lsp/Features.h"
#include "tools/lsp/Lines.h"

namespace lsp {
namespace {

using check::LineKind;
using check::SectionKind;

// As the protocol numbers what a symbol is.
enum class SymbolKind { Section = 3, Setting = 7, Entry = 13 };

Json symbolOf(std::string_view name, SymbolKind kind, Json range) {
  return {{"name", name.empty() ? std::string_view("?") : name},
          {"kind", static_cast<int>(kind)},
          {"range", range},
          {"selectionRange", std::move(range)}};
}

// The slot's name if the entry has one, or else the key.
Json entryOf(const Lines& lines, const Document& document, Json range) {
  const check::SourceFile file{.name = document.path()};
  const auto judged = check::judgeEntry(lines.section(), lines.line(), file);
  const std::string_view value = lines.textOf(lines.line().value);
  if (!judged.entry) return symbolOf(value, SymbolKind::Entry, std::move(range));
  const auto& [key, customKey, isSlow, place, keyPlace, customKeyPlace] = *judged.entry;
  Json symbol = symbolOf(customKey.empty() ? key : customKey, SymbolKind::Entry, std::move(range));
  if (!customKey.empty()) symbol["detail"] = key;
  return symbol;
}

Json pairOf(const Lines& lines, const Document& document) {
  const check::Span body = lines.line().body;
  Json range = document.rangeOf(lines.offsetOf(body.begin), lines.offsetOf(body.end()));
  const SectionKind kind = lines.section().kind;
  if (kind == SectionKind::MeterEntries || kind == SectionKind::EngineEntries) {
    return entryOf(lines, document, std::move(range));
  }
  Json symbol = symbolOf(lines.key(), SymbolKind::Setting, std::move(range));
  symbol["detail"] = lines.textOf(lines.line().value);
  return symbol;
}

// The sections with what is in them.
Json sectionsOf(const Document& document) {
  Json sections = Json::array();
  Lines lines(document);
  while (lines.next()) {
    const check::Line& line = lines.line();
    if (line.kind == LineKind::Header) {
      const Json range = document.rangeOf(lines.offsetOf(line.name.begin - 1),
                                          lines.offsetOf(line.name.end() + 1));
      sections.push_back(symbolOf(lines.textOf(line.name), SymbolKind::Section, range));
      sections.back()["children"] = Json::array();
    } else if (!lines.key().empty() && !sections.empty()) {
      Json pair = pairOf(lines, document);
      sections.back()["range"]["end"] = pair["range"]["end"];
      sections.back()["children"].push_back(std::move(pair));
    }
  }
  return sections;
}

// For an editor that does not know nested symbols.
void addFlat(Json& flat, const Json& symbol, const Json& container, const std::string& uri) {
  flat.push_back({{"name", symbol["name"]},
                  {"kind", symbol["kind"]},
                  {"location", {{"uri", uri}, {"range", symbol["range"]}}}});
  if (!container.is_null()) flat.back()["containerName"] = container;
  for (const Json& child : symbol.value("children", Json::array())) {
    addFlat(flat, child, symbol["name"], uri);
  }
}

}  // namespace

Json symbols(const Document& document, const Client& client) {
  Json sections = sectionsOf(document);
  if (client.takesNestedSymbols) return sections;
  Json flat = Json::array();
  for (const Json& section : sections) addFlat(flat, section, nullptr, document.uri());
  return flat;
}

}  // namespace lsp
