// The rules of the checker, in one table for messages, --list-rules, --explain, --allow and the
// manual. Any thread; the table never changes.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace check {

enum class Severity { Error, Warning, Note };

std::string_view nameOf(Severity severity);

// In the order of the table.
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
  // Faults that make the module refuse the whole configuration.
  EmptyKey,
  DuplicateKey,
  LongCustomKey,
  NoMetersTarget,
  NoEngineTarget,
  NoRateEnabled,
  IncludeCycle,
  EndlessFile,
  TooManyFiles,
  // Lines that the module does not read the way they look.
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

// How bad a breach of a rule is. A LineError is an error in the main file and a warning in a
// dedicated file, where the module skips the line and starts.
enum class Weight { LineError, Error, Warning, Note };

struct RuleText {
  Rule rule;
  Weight weight;
  std::string_view name;         // as in --allow
  std::string_view summary;      // what the rule finds: a noun phrase
  std::string_view explanation;  // what the module does, why, and what to write instead
};

std::span<const RuleText> allRules();

const RuleText& textOf(Rule rule);

// Null if no rule has this name.
const RuleText* ruleOf(std::string_view name);

std::vector<std::string> ruleNames();

Severity severityOf(Weight weight, bool inDedicatedFile);

// "error", "error, but a warning in a dedicated file" and so on.
std::string_view describe(Weight weight);

// Whether a breach can be a warning, which --allow switches off.
bool canBeAllowed(Weight weight);

}  // namespace check
