// Rules about section headers, and about the dedicated files that ParseIfExist: sections name. Any
// thread.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "tools/check/Finding.h"
#include "tools/check/Vocabulary.h"
#include "tools/check/Walk.h"

namespace check {

// A section header, and what is known about its section so far.
struct Header {
  SourceLine at;
  Span name;                 // within the line
  std::string cutName = {};  // as the reader cuts it
  Span rest = {};            // the text after the "]"
  const Section* section = nullptr;
  std::string condition = {};  // the path that the module tests, in a ParseIfExist: section
  bool conditionHolds = false;
  bool hasFile = false;       // whether a ParseIfExist: section has a File line
  std::size_t firstPair = 0;  // the number of the line; 0 before it
  std::string firstKey = {};
  const Section* meant = nullptr;  // what was probably meant by an unknown name

  // The section whose rules the lines follow: the one that was meant, if that is known.
  const Section& judgedAs() const;

  std::string_view fullName() const { return name.of(at.text); }
  std::string_view fullCondition() const;  // not cut
  Span brackets() const { return {name.begin - 1, name.size + 2}; }
};

// Reads the header in the line, and whether its condition holds.
Header headerIn(const Line& line, std::string_view cutName, SourceLine kept);

// The header that was probably meant by a line without its "]"; nothing if that can't be known.
std::optional<Header> openHeaderIn(const Line& line, SourceLine kept);

// Records the first pair of the section: the number and the key of its line.
void noteFirstPair(Header& header, std::size_t number, std::string_view key);

using HeaderRule = MaybeFinding (*)(const Header& header);

// The rules for a header when it is read, when the first pair below it is read, and when its
// section ends.
std::span<const HeaderRule> openingRules();
std::span<const HeaderRule> firstPairRules();
std::span<const HeaderRule> closingRules();

// ---- Files ------------------------------------------------------------------------------------

// Judges the first bytes of a file.
MaybeFinding notText(std::string_view head);

// A File line of a ParseIfExist: section.
struct FileFacts {
  const Header& header;
  Span place;  // of the path, or the whole line if there is none
  std::string_view path;
};

MaybeFinding conditionDiffers(const FileFacts& facts);

// The caller reports it only once.
MaybeFinding relativePath(const FileFacts& facts);

// What keeps the module from reading the file to its end.
MaybeFinding unreadFile(const FileFacts& facts, const Walk::Entered& entered);

// For a dedicated file with `badLines` bad lines. `place` is in its File line.
MaybeFinding dedicatedFileErrors(std::size_t badLines, std::string_view name, Span place);

}  // namespace check
