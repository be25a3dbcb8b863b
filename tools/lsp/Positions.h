// Places in a text as editors count them: lines, and units of a line. Any thread.
//
// Lines end at "\n" alone. Editors show another "\r" as a character of its line, and the module
// reads it so, too.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace lsp {

// What a unit is.
enum class Encoding {
  Utf8,   // a byte
  Utf16,  // half of a pair for a character beyond U+FFFF; a byte that is not UTF-8 counts as one
};

struct Position {
  std::size_t line = 0;       // from 0
  std::size_t character = 0;  // units before it in its line

  bool operator==(const Position&) const = default;
};

// Finds places in a text. The text must outlive it. Each change of the text needs a replace().
class Places {
 public:
  Places(std::string_view text, Encoding encoding);

  // Follows a change of the text without reading all of it again. In the new text, `size` bytes at
  // `begin` stand in place of those from `begin` to `end` in the old one.
  void replace(std::size_t begin, std::size_t end, std::string_view text, std::size_t size);

  // The byte at a position. A position beyond its line, or beyond the text, is at the end; one
  // within a character is at the beginning of the character.
  std::size_t offsetOf(Position position) const;
  Position positionOf(std::size_t offset) const;

  std::size_t lineCount() const { return starts_.size(); }
  // Without its line end.
  std::string_view line(std::size_t number) const;
  // Of the first byte of a line; the end of the text for a line beyond it.
  std::size_t startOf(std::size_t number) const;

 private:
  std::string_view text_;
  Encoding encoding_;
  std::vector<std::size_t> starts_;  // of the lines
};

}  // namespace lsp
