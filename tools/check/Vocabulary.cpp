#include "tools/check/Vocabulary.h"

#include <strings.h>

#include <algorithm>
#include <cctype>

#include "tools/common/Suggestion.h"

namespace check {
namespace {

std::vector<Section> makeSections() {
  using enum SectionKind;
  std::vector<Section> sections = {
      {Meters, "Meters", ValueType::String, {"Target", "EnableFastMeters", "EnableSlowMeters"}},
      {Engine, "Engine", ValueType::String, {"Target"}}};
  for (const auto& row : gateway::valueTypes) {
    sections.push_back({MeterEntries, row.meterSection, row.type, {"Meter"}});
  }
  for (const auto& row : gateway::valueTypes) {
    sections.push_back({EngineEntries, row.paramSection, row.type, {"Param"}});
  }
  return sections;
}

const std::vector<Section>& sections() {
  static const std::vector<Section> all = makeSections();
  return all;
}

}  // namespace

std::string withArticle(ValueType type) {
  return std::string(type == ValueType::Int ? "an " : "a ") + gateway::nameOf(type);
}

std::span<const Section> namedSections() {
  return sections();
}

const Section& sectionOf(std::string_view name) {
  static const Section condition{SectionKind::Condition, conditionPrefix, {}, {"File"}};
  static const Section unknown;
  for (const Section& section : sections()) {
    if (sameName(section.name, name)) return section;
  }
  return name.starts_with(conditionPrefix) ? condition : unknown;
}

const std::vector<std::string>& wordsOf(SectionKind kind) {
  static const std::vector<std::string> meter = {"Key", "CustomKey", "Type", "DefaultValue"};
  static const std::vector<std::string> param = {"Key", "CustomKey"};
  return kind == SectionKind::MeterEntries ? meter : param;
}

bool isWordOf(SectionKind kind, std::string_view word) {
  const auto& words = wordsOf(kind);
  return std::find(words.begin(), words.end(), word) != words.end();
}

bool sameName(std::string_view a, std::string_view b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::string_view sameNameIn(std::string_view name, const std::vector<std::string>& names) {
  const auto found = std::find_if(names.begin(), names.end(),
                                  [&](const std::string& each) { return sameName(each, name); });
  return found == names.end() ? std::string_view() : *found;
}

// Rules out most pairs of names without the costly comparison.
static bool mayBeClose(std::string_view a, std::string_view b) {
  const std::size_t difference = a.size() > b.size() ? a.size() - b.size() : b.size() - a.size();
  return difference <= std::max<std::size_t>(1, a.size() / 3);
}

std::string closestName(std::string_view name, const std::vector<std::string>& names) {
  const auto lower = [](std::string_view text) {
    std::string lowered(text);
    std::transform(lowered.begin(), lowered.end(), lowered.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return lowered;
  };
  std::vector<std::string> candidates;
  for (const std::string& each : names) {
    if (mayBeClose(name, each)) candidates.push_back(lower(each));
  }
  if (candidates.empty()) return {};
  const std::string closest = tools::closestTo(lower(name), candidates);
  return std::string(closest.empty() ? closest : sameNameIn(closest, names));
}

const std::vector<std::string>& allKeys() {
  static const std::vector<std::string> keys = {
      "Target", "EnableFastMeters", "EnableSlowMeters", "Meter", "Param", "File"};
  return keys;
}

bool isEntryKey(std::string_view key) {
  return sameName(key, "Meter") || sameName(key, "Param");
}

}  // namespace check
