// Reads the lines of a configuration file as the INI reader does, and says where their parts are.
//
// The reader reports neither positions nor what it ignores, so this file repeats its rules
// (src/ini/ini.h). A test compares the two over many files.
//
// Memory: one buffer, however long the file and its lines are.
// Threads: one at a time. Ownership: the caller closes the file.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "tools/check/Utf16Counter.h"

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
  Header,        // the name is the text in the brackets, not yet cut
  Pair,
  BadHeader,  // no "]" before an inline comment; the name is the text up to there
  BadPair,    // no separator
};

struct Line {
  LineKind kind = LineKind::Blank;
  std::string_view text = {};  // up to the newline or a NUL byte; valid until the next line is read
  std::size_t number = 0;      // as an editor counts, from 1
  std::size_t chunk = 0;       // as the reader counts, from 1: each piece of a long line is one
  std::size_t offset = 0;      // of the text within the line that an editor shows, in bytes
  Utf16Counter before = {};    // has counted the same bytes, without a byte order mark
  bool isTail = false;         // the line began in an earlier chunk
  bool hasNul = false;         // the text was cut at a NUL byte
  Span body = {};              // the text without the white space around it
  Span name = {};
  Span value = {};
  Span rest = {};  // what the reader ignores: an inline comment, or the text after a header
};

class Scanner {
 public:
  // The reader cuts section names and pending names to this many bytes.
  static constexpr std::size_t keptName = 49;
  // The reader reads at most this many bytes at once, including a newline.
  static constexpr std::size_t chunkSize = 1023;

  explicit Scanner(std::FILE* file) : file_(file) {}

  // Reads the next line; false at the end of the file.
  bool next();

  const Line& line() const { return line_; }

  // The section that the line is in or begins, and the name that an indented line would continue.
  // Both are cut as the reader cuts them.
  const std::string& section() const { return section_; }
  const std::string& pendingName() const { return pendingName_; }

 private:
  void fillBuffer();
  bool readChunk();
  void beginLine();
  void classify();
  void takeHeader();
  void takePair();

  std::FILE* file_;
  std::vector<char> buffer_;
  std::string_view unread_;  // of the buffer
  std::string_view chunk_;   // likewise
  bool lineIsOpen_ = false;  // the chunk did not end its line
  std::size_t lineBytes_ = 0;
  Utf16Counter lineUnits_;
  Line line_;
  std::string section_;
  std::string pendingName_;
};

// White space as the reader sees it.
bool isBlank(char character);

}  // namespace check
