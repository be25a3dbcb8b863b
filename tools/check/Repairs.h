// Repairs a configuration with the edits of its findings.
//
// Only the file itself is repaired, not the dedicated files that it names. Threads: one at a time.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tools/check/Checker.h"

namespace check {

// Which edits to apply.
enum class Boldness { Safe, Likely };

// The text with the edits of its findings made. Of edits that overlap, only the first is made.
std::string repaired(const std::string& text, const std::vector<Diagnostic>& diagnostics,
                     Boldness boldness);

struct Repaired {
  std::string before = {};  // the text of the file
  std::string after = {};   // the same text unless its check is better after the edits
  Checked checked = {};     // the check of `after`
};

// Checks the file, makes the edits and checks the result, until no edit is left. Writes nothing.
// The texts of a file that can't be checked stay empty. Throws std::runtime_error if a file can be
// checked but then not be read to its end.
Repaired repair(const Request& request, Boldness boldness);

// The changed lines as a unified diff with three lines of context. Both texts must have the same
// number of lines.
std::string unifiedDiff(const std::string& name, std::string_view before, std::string_view after);

// Replaces the text of a file, or of the file that a symbolic link leads to. A reader sees either
// the old or the new text, even after a crash. Keeps the mode and, as far as permitted, owner,
// group, access control list and extended attributes; nobody gets rights that the old file did not
// give. Throws std::runtime_error, and then the file is unchanged: also if it no longer holds the
// text `before`, or has a second name.
void replaceFile(const std::string& path, std::string_view before, std::string_view after);

}  // namespace check
