// Rules about one line: its form, its indentation and its key. Any thread.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "tools/check/Finding.h"
#include "tools/check/Scanner.h"
#include "tools/check/Vocabulary.h"

namespace check {

struct LineFacts {
  const Line& line;
  const SourceFile& file;
  const Section* section = nullptr;  // that the line is in; null above the first header
  std::string_view pendingKey = {};  // that an indented line continues
  std::string pendingLine = {};      // the name of its line, if this line is indented

  std::string_view body() const { return line.body.of(line.text); }
  std::string_view value() const { return line.value.of(line.text); }
  // Of a pair, or of the pair that an indented line continues.
  std::string_view key() const;
};

// Whether the line's section accepts its key.
bool isKeyKnown(const LineFacts& facts);

// Whether its key was probably meant to be "Target", although the module does not read it as such.
bool looksLikeTarget(const LineFacts& facts);

// How often to report a rule that many lines can break in the same way.
enum class Repeats { Always, OncePerLine, OncePerFile };

struct LineRule {
  MaybeFinding (*judge)(const LineFacts& facts);
  Repeats repeats = Repeats::Always;
};

std::span<const LineRule> lineRules();

}  // namespace check
