// The lines of a document as the module's reader reads them. Any thread.
#pragma once

#include <cstddef>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include "tools/check/Scanner.h"
#include "tools/check/Vocabulary.h"
#include "tools/lsp/Documents.h"

namespace lsp {

// Reads the lines one by one. The document must outlive it and not change.
class Lines {
 public:
  explicit Lines(const Document& document);
  // The line refers to what the scanner holds.
  Lines(const Lines&) = delete;
  Lines& operator=(const Lines&) = delete;

  bool next();
  const check::Line& line() const { return scanner_.line(); }
  // Of the line's section, which the line may begin.
  const check::Section& section() const { return check::sectionOf(scanner_.section()); }
  // Of a pair, or of the pair that an indented line continues; else empty.
  std::string_view key() const;
  std::string_view textOf(check::Span part) const { return part.of(line().text); }
  // The offset of a part of the line in the document.
  std::size_t offsetOf(std::size_t column) const;

 private:
  struct Close {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };
  const Document& document_;
  std::unique_ptr<std::FILE, Close> file_;  // null for an empty text
  check::Scanner scanner_;
};

// Reads up to the line at this offset. Null if there is no such line, as at the end of the text.
std::unique_ptr<Lines> linesUpTo(const Document& document, std::size_t offset);

}  // namespace lsp
