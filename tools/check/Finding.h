// What a rule finds in a line, and how to repair it.
//
// The rules form groups: LineRules, SectionRules, EntryRules with its GroupRules and DefaultRules,
// WholeRules and ServerRules. Each rule is a function that returns a finding or nothing. It neither
// opens files nor prints. Any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "tools/check/Rules.h"
#include "tools/check/Scanner.h"

namespace check {

// A change of the line: the text at `place` becomes `text`, which has no newline.
struct Edit {
  Span place;
  std::string text;
  // Whether the edit can't change what the module reads, or the module refuses the file and nothing
  // else can be meant. Any other edit is only likely to be right.
  bool isSafe = false;
};

// What to do about a finding. Without an edit, only a person can know what to write.
struct Remedy {
  std::string words = {};
  std::optional<Edit> edit = {};

  Remedy() = default;
  Remedy(std::string advice) : words(std::move(advice)) {}  // NOLINT(google-explicit-constructor)
  Remedy(const char* advice) : words(advice) {}             // NOLINT(google-explicit-constructor)
  Remedy(std::string advice, Span place, std::string text)
      : words(std::move(advice)), edit(Edit{place, std::move(text)}) {}
};

// Remedies whose words are made from the edit: "write TEXT", "did you mean TEXT?", "remove WHAT".
// `after` is appended to the words.
Remedy write(Span place, std::string text, std::string_view after = "");
Remedy ask(Span place, std::string text);
Remedy remove(Span place, std::string_view what);

// The remedy with its edit marked as safe.
Remedy safe(Remedy remedy);

// What else is wrong because of the same mistake. A finding covers those findings: they become its
// notes.
enum class Scope {
  Nothing,
  EmptyKey,  // the entry has no Key
  Line,      // all errors in the line
  File,      // everything in the file
};

struct Finding {
  Rule rule;
  Span place;        // within the text of the line
  std::string text;  // what is wrong, and what the module does
  Remedy remedy;
  Scope covers = Scope::Nothing;
  // The line with the mistake that caused this finding, if that is another line.
  const struct SourceLine* cause = nullptr;
};

using MaybeFinding = std::optional<Finding>;

// ---- Places -----------------------------------------------------------------------------------

// A file that is being read.
struct SourceFile {
  std::string name;
  std::string readAt = {};   // FILE:LINE of its File line; empty for the main file
  std::string head = {};     // the first bytes
  bool isReadAgain = false;  // an earlier File line named it, too

  bool isDedicated() const { return !readAt.empty(); }
};

// A line that later findings may be about. The file must outlive it.
struct SourceLine {
  const SourceFile* file = nullptr;
  std::uint64_t order = 0;                          // among the lines of all files
  std::size_t number = 0;                           // as in Line
  std::size_t offset = 0;                           // likewise
  Utf16Counter before = {};                         // likewise
  std::string text = {};                            // likewise
  std::shared_ptr<const std::string> section = {};  // that the line is in; null if none
};

// The name of a line in any message: "line 7" of the main file, or "other.conf:7".
std::string nameOf(const SourceLine& line);

// Its name in a message about the line `from`: "line 7" if both are in the same file.
std::string nameOf(const SourceLine& line, const SourceLine& from);

// What the module does about a bad line, as the last part of a text.
std::string_view consequenceIn(const SourceFile& file);

}  // namespace check
