#include "tools/lsp/Lines.h"

#include <cerrno>
#include <system_error>

namespace lsp {
namespace {

std::FILE* opened(const std::string& text) {
  if (text.empty()) return nullptr;
  // Nobody writes to it: it is opened for reading.
  std::FILE* const file = fmemopen(const_cast<char*>(text.data()), text.size(), "r");
  if (file == nullptr) throw std::system_error(errno, std::generic_category(), "fmemopen");
  return file;
}

}  // namespace

Lines::Lines(const Document& document)
    : document_(document), file_(opened(document.text())), scanner_(file_.get()) {}

bool Lines::next() {
  return file_ && scanner_.next();
}

std::string_view Lines::key() const {
  if (line().kind == check::LineKind::Continuation) return scanner_.pendingName();
  return line().kind == check::LineKind::Pair ? textOf(line().name) : std::string_view();
}

std::size_t Lines::offsetOf(std::size_t column) const {
  return document_.offsetAt(line().number, line().offset + column + 1);
}

std::unique_ptr<Lines> linesUpTo(const Document& document, std::size_t offset) {
  auto lines = std::make_unique<Lines>(document);
  while (lines->next()) {
    const std::size_t end = lines->offsetOf(lines->line().text.size());
    if (offset <= end) return lines;
  }
  return nullptr;
}

}  // namespace lsp
