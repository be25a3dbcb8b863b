// The sections, keys and words that the module knows. Any thread; they never change.
//
// ConfigManager does not publish them, so this file repeats them. A test compares the verdicts of
// both over many files.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "module/grpc-gateway/ValueType.h"

namespace check {

using gateway::ValueType;

// "a float", "an int".
std::string withArticle(ValueType type);

enum class SectionKind { Meters, Engine, MeterEntries, EngineEntries, Condition, Unknown };

struct Section {
  SectionKind kind = SectionKind::Unknown;
  std::string_view name;
  ValueType type = ValueType::String;  // of an entry section
  std::vector<std::string> keys;
};

// The section with this name, which must be cut as the reader cuts it. Compares as the module does.
const Section& sectionOf(std::string_view name);

// The sections with a fixed name.
std::span<const Section> namedSections();

inline constexpr std::string_view conditionPrefix = "ParseIfExist:";

// The words that an entry accepts. Those of both kinds come first.
const std::vector<std::string>& wordsOf(SectionKind kind);
bool isWordOf(SectionKind kind, std::string_view word);

// Ignores case, as the module does when it compares the names of sections and keys.
bool sameName(std::string_view a, std::string_view b);

// The element of `names` that is the same name, or an empty text. The result refers to `names`.
std::string_view sameNameIn(std::string_view name, const std::vector<std::string>& names);
std::string_view sameNameIn(std::string_view name, std::vector<std::string>&& names) = delete;

// The element of `names` that was probably meant by `name`, or an empty text. Ignores case.
std::string closestName(std::string_view name, const std::vector<std::string>& names);

// All keys of all sections.
const std::vector<std::string>& allKeys();

// Whether the values of a key are entries: Meter or Param.
bool isEntryKey(std::string_view key);

}  // namespace check
