// The sections, keys and words that the module knows. Any thread; nothing here changes.
//
// ConfigManager has them for itself and does not tell them; a test compares the verdicts of both
// over many files.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "module/grpc-gateway/ValueType.h"

namespace check {

using gateway::ValueType;

enum class SectionKind { Meters, Engine, MeterEntries, EngineEntries, Condition, Unknown };

struct Section {
  SectionKind kind = SectionKind::Unknown;
  std::string_view name;
  ValueType type = ValueType::String;  // of an entry section
  std::vector<std::string> keys;
};

// As the module compares it, cut to what the reader keeps.
const Section& sectionOf(std::string_view name);

// Those with a fixed name.
std::span<const Section> namedSections();

inline constexpr std::string_view conditionPrefix = "ParseIfExist:";

// The words of an entry, those that both kinds have first.
const std::vector<std::string>& wordsOf(SectionKind kind);

// Without regard to case, as the module compares names of sections and keys.
bool sameName(std::string_view a, std::string_view b);

// The one of `names` that is the same name, as a part of that; empty if none is.
std::string_view sameNameIn(std::string_view name, const std::vector<std::string>& names);
std::string_view sameNameIn(std::string_view name, std::vector<std::string>&& names) = delete;

// The one of `names` that was probably meant by `name`, or nothing. Case counts for little.
std::string closestName(std::string_view name, const std::vector<std::string>& names);

// All keys of all sections.
const std::vector<std::string>& allKeys();

}  // namespace check
