// What the checker has found: diagnostics in the order of the lines that the module reads.
//
// Memory: of each severity only the first ones are kept, in the order in which they were found; the
// others are counted.
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
  std::size_t column = 0;        // the byte of the line, from 1; 0 if there is no line
  std::size_t size = 0;          // bytes from there on
  std::string text = {};         // what is the matter and what the module does
  std::string remedy = {};       // what to do about it
  std::string section = {};      // in which the line stands, if it stands in one
  std::string readAt = {};       // where a dedicated file was named, as FILE:LINE
  std::string source = {};       // the line, or the chunk of a long one
  std::size_t sourceColumn = 1;  // of the first byte of `source`
  std::uint64_t order = 0;       // of the line among all lines that were read
};

class Findings {
 public:
  // Kept of each severity.
  static constexpr std::size_t kept = 500;

  // Warnings of the rules in `allowed` are passed over.
  explicit Findings(std::set<Rule> allowed) : allowed_(std::move(allowed)) {}

  void add(Diagnostic diagnostic);

  // Whether one more of the severity would be kept: what is only counted needs no text.
  bool keepsMore(Severity severity) const { return count(severity) < kept; }

  // How many of a severity there are, kept or not.
  std::size_t count(Severity severity) const { return counts_[index(severity)]; }
  std::size_t omitted() const;

  // Those that were kept, in order. To be called once, at the end.
  std::vector<Diagnostic> take();

 private:
  static std::size_t index(Severity severity) { return static_cast<std::size_t>(severity); }

  std::set<Rule> allowed_;
  std::array<std::size_t, 3> counts_{};
  std::vector<Diagnostic> diagnostics_;
};

}  // namespace check
