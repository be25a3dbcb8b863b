// Reports for programs that show a message beside a line: GitHub's workflow commands, and
// Checkstyle's XML, which most CI servers and editors read. Both are valid whatever bytes a file
// holds. Any thread.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tools/check/Checker.h"

namespace check {

// The columns of a place, in UTF-16 code units from 1. A byte order mark does not count.
struct Columns {
  std::size_t begin = 1;
  std::size_t end = 1;  // after the last
};

// Of the `size` bytes from `column` on, in the line of the diagnostic.
Columns columnsOf(const Diagnostic& diagnostic, std::size_t column, std::size_t size);

// "PROBLEM; REMEDY", and what follows from it on lines of its own.
std::string messageOf(const Diagnostic& diagnostic);

// A line for each diagnostic, such as "::error file=FILE,line=1,endLine=1,col=1,endColumn=9::TEXT".
std::string githubCommands(const std::vector<Checked>& files);

// One document.
std::string checkstyleXml(const std::vector<Checked>& files);

}  // namespace check
