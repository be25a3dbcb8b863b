// The manuals of the sub-commands, as plain text. --help prints it rewrapped, and man pages are
// made from it.
//
//   A paragraph starts at the left margin. What comes before the first section is the description.
//
//   SECTION
//
//   A line of capitals at the left margin starts a section. The options of the sub-command become
//   the first section.
//
//     TERM   An entry of a list: two columns of indentation, the term, at least two blanks, and
//            its meaning. The meaning may also start on the next line, below a long term.
//
//       Lines that are indented further, after an empty line, are literal: output or commands.
//       They are never wrapped.
//
//   {part}
//
// A line in braces stands for a part that only the program knows, such as a table that it shares
// with a parser. "{exit codes}" stands for the exit codes that every sub-command has.
//
// Any thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace tools {

inline constexpr std::size_t manualWidth = 79;

struct ManualPart {
  std::string_view name;  // without its braces
  std::string text;       // whole lines
};

// `text` with its parts in place. Throws std::logic_error if it has no line for a part.
std::string filled(std::string_view text, const std::vector<ManualPart>& parts);

// The same for a manual, which may also have a line "{exit codes}".
std::string manualOf(std::string_view text, std::vector<ManualPart> parts = {});

// An entry of a list, its meaning wrapped and starting at `column`.
std::string manualEntry(std::string_view term, std::string_view meaning, std::size_t column,
                        std::size_t width = manualWidth);

// The words of a text in lines of at most `width` bytes, each with `indent` blanks in front.
std::string wrapped(std::string_view text, std::size_t indent, std::size_t width = manualWidth);

// ---- Reading a manual -------------------------------------------------------------------------

// Successive lines without an empty one between them.
struct ManualBlock {
  enum class Kind { Section, Paragraph, Entries, Literal };

  Kind kind;
  std::vector<std::string> lines;
};

struct ManualEntry {
  std::string term;
  std::string meaning;  // in one line
};

std::vector<ManualBlock> blocksOf(std::string_view manual);
// Joins the lines of a paragraph into one.
std::string joined(const std::vector<std::string>& lines);
// The entries of a block of kind Entries.
std::vector<ManualEntry> entriesOf(const ManualBlock& block);

// The manual with paragraphs and entries in lines of at most `width` columns. Lines are broken only
// at blanks, so a long word may exceed the width.
std::string rewrapped(std::string_view manual, std::size_t width);

}  // namespace tools
