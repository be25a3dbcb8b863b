// The diagnostics of a check, in the order in which the module reads the lines.
//
// Memory: keeps the first diagnostics of each severity that are found, and only counts the others.
// Threads: one at a time.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "tools/check/Finding.h"

namespace check {

// A finding with its severity and its place among the files.
struct Diagnostic {
  Rule rule;
  Severity severity{};
  std::string file = {};
  std::size_t line = 0;          // from 1; 0 for the file as a whole
  std::size_t column = 0;        // a byte of the line, from 1; 0 if there is no line
  std::size_t size = 0;          // in bytes, from that column
  std::string text = {};         // what is wrong, and what the module does
  std::string remedy = {};       // what to do about it
  std::string section = {};      // that the line is in; empty if none
  std::string readAt = {};       // the File line that named a dedicated file, as FILE:LINE
  std::string source = {};       // the line, or the chunk of a long one
  std::size_t sourceColumn = 1;  // of the first byte of `source`
  std::uint64_t order = 0;       // of the line among the lines of all files
};

class Findings {
 public:
  // How many of each severity are kept.
  static constexpr std::size_t kept = 500;

  // Ignores the warnings of the rules in `allowed`.
  explicit Findings(std::set<Rule> allowed) : allowed_(std::move(allowed)) {}

  // Adds a finding about a line.
  void add(const SourceLine& line, Finding finding);
  // Adds one about the main file as a whole, which has so many lines.
  void add(const std::string& file, std::uint64_t lines, Finding finding);

  // How many of a severity were added, kept or not.
  std::size_t count(Severity severity) const { return counts_[index(severity)]; }
  std::size_t omitted() const;

  // The kept diagnostics, in the order of the lines. Call this once, at the end.
  std::vector<Diagnostic> take();

 private:
  static std::size_t index(Severity severity) { return static_cast<std::size_t>(severity); }
  bool counts(Rule rule, Severity severity);

  // Of a finding that covers its line: the remedy is for the other faults of that line, too.
  struct Covered {
    std::uint64_t order;
    std::string remedy;
  };
  const std::string* remedyThatCovers(const SourceLine& line) const;

  std::set<Rule> allowed_;
  std::vector<Covered> covered_;  // by the order of the lines; only the first ones
  std::array<std::size_t, 3> counts_{};
  std::vector<Diagnostic> diagnostics_;
};

}  // namespace check
