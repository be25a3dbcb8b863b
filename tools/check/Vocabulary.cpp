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

bool sameName(std::string_view a, std::string_view b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::string_view sameNameIn(std::string_view name, const std::vector<std::string>& names) {
  const auto found = std::find_if(names.begin(), names.end(),
                                  [&](const std::string& each) { return sameName(each, name); });
  return found == names.end() ? std::string_view() : *found;
}

std::string closestName(std::string_view name, const std::vector<std::string>& names) {
  const auto lower = [](std::string_view text) {
    std::string lowered(text);
    std::transform(lowered.begin(), lowered.end(), lowered.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return lowered;
  };
  std::vector<std::string> candidates(names.size());
  std::transform(names.begin(), names.end(), candidates.begin(), lower);
  const std::string closest = tools::closestTo(lower(name), candidates);
  const auto found = std::find(candidates.begin(), candidates.end(), closest);
  return found == candidates.end() ? ""
                                   : names[static_cast<std::size_t>(found - candidates.begin())];
}

const std::vector<std::string>& allKeys() {
  static const std::vector<std::string> keys = {
      "Target", "EnableFastMeters", "EnableSlowMeters", "Meter", "Param", "File"};
  return keys;
}

}  // namespace check
