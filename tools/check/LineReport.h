// One line of a file while it is looked at, and where the diagnostics about it go.
//
// Threads: one at a time. It refers to what it is made from, and lives as long as the line.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/check/Findings.h"
#include "tools/check/Scanner.h"

namespace check {

// A line of one of the files, to be named later.
struct Spot {
  std::uint32_t file = 0;
  std::uint32_t line = 0;
};

// A file that is being read.
struct SourceFile {
  std::uint32_t number = 0;
  std::string name = {};
  std::string readAt = {};   // FILE:LINE of its File line; empty for the main file
  std::size_t badLines = 0;  // line errors so far

  bool isDedicated() const { return !readAt.empty(); }
};

class LineReport {
 public:
  LineReport(Findings& findings, const std::vector<std::string>& fileNames, SourceFile& file,
             const Line& line, std::string section, std::uint64_t order)
      : findings_(findings),
        fileNames_(fileNames),
        file_(file),
        line_(line),
        section_(std::move(section)),
        order_(order) {}

  const Line& line() const { return line_; }
  Spot spot() const { return {file_.number, static_cast<std::uint32_t>(line_.number)}; }
  bool isDedicated() const { return file_.isDedicated(); }

  // A diagnostic at a part of the line, yet without rule and text.
  Diagnostic at(Span place) const;

  void add(Rule rule, Span place, std::string text, std::string remedy);

  // Whether more than the number of its breaches would be kept: without that, add() needs no text.
  bool keepsMore(Rule rule) const;

  // It was told that the line as a whole stands where it does not belong: from here on only what is
  // an error in the main file is told, with this remedy.
  void takeAsMisplaced(std::string remedy) { misplaced_ = std::move(remedy); }

  // What the module does about a bad line, for the end of a text.
  std::string consequence() const;

  // This line, wherever it is told of: "line 7" of the main file, or "other.conf:7".
  std::string ownName() const;

  // Another line as seen from here: "line 7", or "other.conf:7".
  std::string nameOf(Spot spot) const;

  // Whether it is this very line, in a file that is read a second time.
  bool isReadAgain(Spot spot) const;

 private:
  Findings& findings_;
  const std::vector<std::string>& fileNames_;
  SourceFile& file_;
  const Line& line_;
  const std::string section_;
  const std::uint64_t order_;
  std::string misplaced_ = {};  // the remedy
};

}  // namespace check
