// Reports the diagnostics about one line.
//
// Threads: one at a time. Ownership: the constructor's arguments must outlive it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/check/Findings.h"
#include "tools/check/Scanner.h"

namespace check {

// The place of a line, kept so that later messages can name it.
struct Spot {
  std::uint32_t file = 0;
  std::uint32_t line = 0;
};

// A file that is being read.
struct SourceFile {
  std::uint32_t number = 0;
  std::string name = {};
  std::string readAt = {};   // FILE:LINE of its File line; empty for the main file
  std::size_t badLines = 0;  // breaches of Weight::LineError so far

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

  // A diagnostic at a part of the line, still without a rule and texts.
  Diagnostic at(Span place) const;

  void add(Rule rule, Span place, std::string text, std::string remedy);

  // Whether another breach of the rule would be kept. One that is only counted needs no text.
  bool keepsMore(Rule rule) const;

  // Call this after reporting the whole line as misplaced. From here on add() ignores warnings and
  // notes, and reports what would be an error in the main file with this remedy.
  void takeAsMisplaced(std::string remedy) { misplaced_ = std::move(remedy); }

  // What the module does about a bad line, as the last part of a text.
  std::string consequence() const;

  // The name of this line in any message: "line 7" of the main file, or "other.conf:7".
  std::string ownName() const;

  // The name of another line in a message about this one: "line 7", or "other.conf:7".
  std::string nameOf(Spot spot) const;

  // Whether `spot` is this same line, because the file is read a second time.
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
