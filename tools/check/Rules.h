// The rules of the checker: one table that messages, --list-rules, --explain, --allow and the
// manual are made of. Any thread; the table never changes.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace check {

enum class Severity { Error, Warning, Note };

std::string_view nameOf(Severity severity);

// The table's order is that of this list.
enum class Rule : std::uint8_t {
  // Lines that the reader or the module refuses.
  BadLine,
  BadHeader,
  PairOutsideSection,
  UnknownSection,
  UnknownKey,
  EarlySeparator,
  OpenQuote,
  CommentInQuotes,
  UnknownWord,
  UnknownType,
  BadDefault,
  // What makes the configuration as a whole refused.
  EmptyKey,
  DuplicateKey,
  LongCustomKey,
  NoMetersTarget,
  NoEngineTarget,
  NoRateEnabled,
  IncludeCycle,
  EndlessFile,
  TooManyFiles,
  // Lines that are read otherwise than they look.
  IndentedLine,
  LongLine,
  NulByte,
  TextAfterHeader,
  LongSectionName,
  UnusedSection,
  CommentInContinuation,
  HashComment,
  // Settings.
  SwitchValue,
  RepeatedSetting,
  OverriddenSetting,
  BadTarget,
  // Words of entries.
  WordWithoutEquals,
  WordEndsInEquals,
  TextAfterSecondEquals,
  LostBackslash,
  CurlyQuote,
  RepeatedWord,
  TrailingComma,
  TrailingText,
  UnsignedRange,
  LongDefault,
  // Names.
  KeyNotUtf8,
  ControlCharacter,
  OuterBlanks,
  RepeatedSlotName,
  RateOff,
  // Dedicated files.
  LongCondition,
  EmptyCondition,
  MissingCondition,
  ConditionDiffers,
  ConditionWithoutFile,
  MissingFile,
  StrayKey,
  DedicatedFileErrors,
  RelativePath,
};

// How bad a breach of a rule is. That of a line depends on where the line stands: in a dedicated
// file the module passes over it and starts.
enum class Weight { LineError, Error, Warning, Note };

struct RuleText {
  Rule rule;
  Weight weight;
  std::string_view name;         // as in --allow
  std::string_view summary;      // what is found, in a line
  std::string_view explanation;  // what the module does, why, and what to write instead
};

std::span<const RuleText> allRules();

const RuleText& textOf(Rule rule);

// Null if there is none of that name.
const RuleText* ruleOf(std::string_view name);

std::vector<std::string> ruleNames();

// "error", "error; in a dedicated file a warning" and so on.
Severity severityOf(Weight weight, bool inDedicatedFile);
std::string_view describe(Weight weight);

// Whether a breach can be a warning, and so be switched off.
bool canBeAllowed(Weight weight);

}  // namespace check
