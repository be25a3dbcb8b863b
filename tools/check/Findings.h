// The diagnostics of a check, in the order in which the module reads the lines.
//
// Memory: keeps the first `kept` diagnostics of each rule, and only counts the others. Of dedicated
// files it also keeps a hash of each of the first million findings.
// Threads: one at a time.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "tools/check/Finding.h"

namespace check {

// A finding that follows from another one.
struct Note {
  Rule rule;
  std::string text;
  std::string file;
  std::size_t line = 0;  // from 1; 0 for the file as a whole
};

// The edit of a finding: at this place in the file, `before` becomes `after`.
struct Repair {
  std::size_t line = 0;
  std::size_t column = 0;
  std::string before = {};
  std::string after = {};
  bool isSafe = false;
};

// A finding with its severity and its place among the files.
struct Diagnostic {
  Rule rule;
  Severity severity{};
  std::string file = {};
  std::size_t line = 0;     // from 1; 0 for the file as a whole
  std::size_t column = 0;   // a byte of the line, from 1; 0 if there is no line
  std::size_t size = 0;     // in bytes, from that column
  std::string text = {};    // what is wrong, and what the module does
  std::string remedy = {};  // what to do about it
  std::optional<Repair> repair = {};
  std::vector<Note> notes = {};  // what else is wrong because of the same mistake
  std::string section = {};      // that the line is in; empty if none
  std::string readAt = {};       // the File line that named a dedicated file, as FILE:LINE
  std::string source = {};       // the line, or the chunk of a long one
  std::size_t sourceColumn = 1;  // of the first byte of `source`
  Utf16Counter before = {};      // has counted what precedes `source` in its line
  std::uint64_t order = 0;       // of the line among the lines of all files
};

// How many diagnostics of a rule were counted but not kept.
struct Omitted {
  Rule rule;
  std::size_t count;
};

class Findings {
 public:
  // How many of each rule are kept.
  static constexpr std::size_t kept = 100;

  // Ignores the warnings of the rules in `allowed`.
  explicit Findings(std::set<Rule> allowed) : allowed_(std::move(allowed)) {}

  // Adds a finding about a line, or adds it as a note to the diagnostic that covers it. A note that
  // is an error makes that diagnostic an error.
  void add(const SourceLine& line, Finding finding);
  // Adds one about the main file as a whole. `lines` is the number of lines in all files.
  void add(const SourceFile& file, std::uint64_t lines, Finding finding);

  // How many of a severity were added, kept or not. Notes do not count.
  std::size_t count(Severity severity) const { return counts_[index(severity)]; }
  std::vector<Omitted> omitted() const;

  // The kept diagnostics, in the order of the lines. Call this once, at the end.
  std::vector<Diagnostic> take();

 private:
  // A diagnostic that covers others, by its position among all.
  struct Cover {
    Scope scope;
    std::size_t diagnostic;
  };

  static std::size_t index(Severity severity) { return static_cast<std::size_t>(severity); }
  bool isRepeated(const SourceLine& line, const Finding& finding);
  bool isKept(Rule rule, Severity severity);
  // A finding and its place, before they become a diagnostic or a note.
  struct Placed {
    const Finding& finding;
    const SourceFile& file;
    std::size_t line;  // as in Note
    std::uint64_t order;
    Severity severity;
  };

  bool isCovered(const Placed& placed);
  bool isNoteOf(std::size_t diagnostic, const Placed& placed);
  void escalate(std::size_t diagnostic, Severity severity);
  void keep(Diagnostic diagnostic, const SourceFile& file, Finding finding);

  std::set<Rule> allowed_;
  std::array<std::size_t, 3> counts_{};
  std::array<std::size_t, allRules.size()> ruleCounts_{};
  std::vector<Diagnostic> diagnostics_;
  std::unordered_set<std::size_t> found_;           // hashes of the findings in dedicated files
  std::unordered_map<std::uint64_t, Cover> lines_;  // by the order of the line
  std::unordered_map<const SourceFile*, std::size_t> files_;  // the diagnostics that cover a file
};

}  // namespace check
