#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "tools/check/Repairs.h"
#include "tools/check/Text.h"
#include "tools/lsp/Features.h"

namespace lsp {
namespace {

using check::Boldness;
using check::Repair;

constexpr std::string_view quickFix = "quickfix";
constexpr std::string_view fixAll = "source.fixAll";

// A kind stands for all kinds below it: "source" for "source.fixAll".
bool isWanted(std::string_view kind, const Json& context) {
  const auto only = context.find("only");
  if (only == context.end() || only->is_null()) return true;
  return std::any_of(only->begin(), only->end(), [&](const Json& each) {
    const auto wanted = each.get<std::string>();
    return kind == wanted || kind.starts_with(wanted + ".");
  });
}

Json editOf(const Document& document, Json edits, const Client& client) {
  if (!client.takesVersionedEdits) return {{"changes", {{document.uri(), std::move(edits)}}}};
  const Json identifier = {{"uri", document.uri()}, {"version", document.version}};
  return {{"documentChanges",
           Json::array({{{"textDocument", identifier}, {"edits", std::move(edits)}}})}};
}

std::string titleOf(const Repair& repair) {
  if (repair.before.empty()) return fmt::format("Insert {}", check::inQuotes(repair.after));
  if (repair.after.empty()) return fmt::format("Remove {}", check::inQuotes(repair.before));
  return fmt::format("Replace {} with {}", check::inQuotes(repair.before),
                     check::inQuotes(repair.after));
}

Json textEdit(const Document& document, std::size_t begin, std::size_t end, std::string_view text) {
  return {{"range", document.rangeOf(begin, end)}, {"newText", text}};
}

Json quickFixOf(const Document& document, const Shown& shown, const Client& client) {
  const Repair& repair = *shown.diagnostic.repair;
  const std::size_t begin = document.offsetAt(repair.line, repair.column);
  const Json edit = textEdit(document, begin, begin + repair.before.size(), repair.after);
  return {{"title", titleOf(repair)},
          {"kind", quickFix},
          {"diagnostics", Json::array({shown.json})},
          {"isPreferred", repair.isSafe},
          {"edit", editOf(document, Json::array({edit}), client)}};
}

bool overlaps(const Shown& shown, const Document& document,
              const std::pair<std::size_t, std::size_t>& range) {
  const auto [begin, end] = document.offsetsOf(shown.json.at("range"));
  return begin <= range.second && end >= range.first;
}

// The text with all safe repairs. In a dedicated file, one round of them: checked by itself, it
// would lack what the main file sets.
std::string repairedText(const Document& document, Checks& checks,
                         const std::vector<Shown>& diagnostics) {
  const auto roots = checks.rootsOf(document);
  if (std::find(roots.begin(), roots.end(), &document) != roots.end()) {
    const check::Repaired repaired = check::repair(checks.requestOf(document), Boldness::Safe);
    return repaired.checked.verdict == check::Verdict::Unreadable ? document.text()
                                                                  : repaired.after;
  }
  std::vector<check::Diagnostic> own;
  for (const Shown& each : diagnostics) {
    own.push_back(each.diagnostic);
    own.back().readAt.clear();
  }
  return check::repaired(document.text(), own, Boldness::Safe);
}

// The edits that turn the document into the text, which has the same number of lines.
Json editsTo(const std::string& text, const Document& document) {
  const Places places(text, Encoding::Utf8);
  Json edits = Json::array();
  for (std::size_t i = 0; i < places.lineCount(); ++i) {
    const std::string_view before = document.places().line(i);
    const std::string_view after = places.line(i);
    if (before == after) continue;
    const std::size_t begin = document.places().startOf(i);
    edits.push_back(textEdit(document, begin, begin + before.size(), after));
  }
  return edits;
}

}  // namespace

Json codeActions(const Document& document, Checks& checks, const Client& client,
                 const Json& params) {
  const auto range = document.offsetsOf(params.at("range"));
  const Json context = params.value("context", Json::object());
  Json actions = Json::array();
  if (!client.takesLiteralActions) return actions;
  const std::vector<Shown> diagnostics = diagnosticsOf(document, checks, client);
  for (const Shown& each : diagnostics) {
    const bool isHere = each.diagnostic.repair && overlaps(each, document, range);
    if (isHere && isWanted(quickFix, context)) {
      actions.push_back(quickFixOf(document, each, client));
    }
  }
  if (!isWanted(fixAll, context)) return actions;
  Json edits = editsTo(repairedText(document, checks, diagnostics), document);
  if (edits.empty()) return actions;
  actions.push_back({{"title", "Make all safe repairs"},
                     {"kind", fixAll},
                     {"edit", editOf(document, std::move(edits), client)}});
  return actions;
}

}  // namespace lsp
