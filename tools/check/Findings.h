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

#include "tools/check/Rules.h"

namespace check {

struct Diagnostic {
  Rule rule{};
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

  void add(Diagnostic diagnostic);

  // Whether another one of the severity would be kept. One that is only counted needs no text.
  bool keepsMore(Severity severity) const { return count(severity) < kept; }

  // How many of a severity were added, kept or not.
  std::size_t count(Severity severity) const { return counts_[index(severity)]; }
  std::size_t omitted() const;

  // The kept diagnostics, in the order of the lines. Call this once, at the end.
  std::vector<Diagnostic> take();

 private:
  static std::size_t index(Severity severity) { return static_cast<std::size_t>(severity); }

  std::set<Rule> allowed_;
  std::array<std::size_t, 3> counts_{};
  std::vector<Diagnostic> diagnostics_;
};

}  // namespace check
