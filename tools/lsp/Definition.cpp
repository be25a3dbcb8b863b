#include <filesystem>
#include <string>
#include <system_error>

#include "tools/lsp/Features.h"
#include "tools/lsp/Lines.h"

namespace lsp {
namespace {

// The path that a line of a ParseIfExist: section names, or an empty text.
std::string pathIn(const Lines& lines) {
  if (lines.section().kind != check::SectionKind::Condition) return {};
  const check::Line& line = lines.line();
  if (line.kind == check::LineKind::Header) {
    return std::string(lines.textOf(line.name).substr(check::conditionPrefix.size()));
  }
  const bool isFile = check::sameName(lines.key(), "File");
  return std::string(isFile ? lines.textOf(line.value) : "");
}

}  // namespace

Json definition(const Document& document, const Documents& documents, const Json& params) {
  const auto lines = linesUpTo(document, document.offsetOf(params.at("position")));
  const std::string path = lines ? pathIn(*lines) : "";
  if (path.empty()) return nullptr;
  const Document* const open = documents.at(path);
  std::error_code error;
  if (open == nullptr && !std::filesystem::is_regular_file(path, error)) return nullptr;
  const Json start = jsonOf(Position{});
  return {{"uri", open != nullptr ? open->uri() : uriOf(path)},
          {"range", {{"start", start}, {"end", start}}}};
}

}  // namespace lsp
