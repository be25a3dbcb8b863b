// The lines of a configuration file as the INI reader takes them, with the places of their parts.
//
// The reader itself tells neither places nor what it ignores, so its rules of lines (src/ini/ini.h)
// stand here a second time; a test holds both against each other over many files.
//
// Memory: one chunk of the file, however long the file and its lines are.
// Threads: one at a time. Ownership: the file stays the caller's.
#pragma once

#include <array>
#include <cstddef>
#include <cstdio>
#include <string>
#include <string_view>

namespace check {

// A part of a line's text.
struct Span {
  std::size_t begin = 0;
  std::size_t size = 0;

  std::size_t end() const { return begin + size; }
  std::string_view of(std::string_view text) const { return text.substr(begin, size); }
  bool operator==(const Span&) const = default;
};

enum class LineKind {
  Blank,
  Comment,
  Continuation,  // the value is the whole trimmed text
  Header,        // the name is what stands in the brackets, not yet cut
  Pair,
  BadHeader,  // no "]" in front of an inline comment
  BadPair,    // no separator
};

struct Line {
  LineKind kind = LineKind::Blank;
  std::string_view text = {};  // without its newline, up to a NUL byte; until the next line is read
  std::size_t number = 0;      // as editors count, from 1
  std::size_t chunk = 0;       // as the reader counts, from 1: each part of a long line is one
  std::size_t offset = 0;      // bytes of the editor's line in front of the text
  bool isTail = false;         // the line began in an earlier chunk
  bool hasNul = false;         // the text was cut at a NUL byte
  Span body = {};              // the text without the white space around it
  Span name = {};
  Span value = {};
  Span rest = {};  // what is passed over: an inline comment, or what stands behind a header
};

class Scanner {
 public:
  // The longest section and pending name that the reader keeps.
  static constexpr std::size_t keptName = 49;
  // What the reader takes at once, a newline included.
  static constexpr std::size_t chunkSize = 1023;

  explicit Scanner(std::FILE* file) : file_(file) {}

  // Reads the next line; false at the end of the file.
  bool next();

  const Line& line() const { return line_; }

  // The section that the line stands in, or opens, and the name that is pending behind it, both cut
  // as the reader does.
  const std::string& section() const { return section_; }
  const std::string& pendingName() const { return pendingName_; }

 private:
  bool readChunk();
  void classify();
  void takeHeader();
  void takePair();

  std::FILE* file_;
  std::array<char, chunkSize> chunk_;
  std::size_t size_ = 0;
  bool lineIsOpen_ = false;  // the chunk did not end its line
  std::size_t lineBytes_ = 0;
  Line line_;
  std::string section_;
  std::string pendingName_;
};

// White space as the reader sees it.
bool isBlank(char character);

}  // namespace check
