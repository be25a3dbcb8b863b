// Rules about the whole configuration: settings that override each other, repeated keys and names,
// missing targets. Any thread.
#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tools/check/EntryRules.h"
#include "tools/check/Finding.h"
#include "tools/check/Vocabulary.h"

namespace check {

// A line that sets a target or a switch.
struct Setting {
  std::string_view key = {};  // as the vocabulary has it
  SourceLine at = {};
  Span place = {};  // of the value, or the whole line if there is none
  std::string value = {};
  bool isContinuation = false;

  bool isOn() const { return sameName(value, "true"); }
};

// An entry that the module appends to one of its lists.
struct EntryLine {
  SourceLine at;
  const Section* section;
  Entry entry;
};

// A configuration as the module reads it: for each setting the last line, and all entries in order.
struct Configuration {
  std::optional<Setting> metersTarget = {};
  std::optional<Setting> engineTarget = {};
  std::optional<Setting> fast = {};
  std::optional<Setting> slow = {};
  std::deque<EntryLine> entries = {};
  // The lines of misplaced or misspelt Targets, which the module ignores. If a target is missing,
  // they are the cause.
  std::optional<SourceLine> lostMetersTarget = {};
  std::optional<SourceLine> lostEngineTarget = {};
  bool isPartial = false;  // lines or files that may have more entries are left out

  // The setting with this key in the section of this kind.
  std::optional<Setting>& settingOf(SectionKind section, std::string_view key);
  // Remembers the lost Target of a line in this section; its name may be misspelt.
  void noteLostTarget(std::string_view section, const SourceLine& line);
};

// Entries that a finding is about: how many there are, and the first few.
struct Users {
  static constexpr std::size_t named = 4;
  std::size_t count = 0;
  std::vector<const EntryLine*> first = {};

  void add(const EntryLine& line) {
    if (count++ < named) first.push_back(&line);
  }
};

// "line 4, line 6 and 2 more".
std::string linesOf(const Users& users);

// Rules about one setting. `before` is the line that it overrides, or null.
struct SettingFacts {
  const Setting& setting;
  const Setting* before;
};
using SettingRule = MaybeFinding (*)(const SettingFacts& facts);
std::span<const SettingRule> settingRules();

// Receives a finding about a line, or about the main file as a whole if the line is null.
using Report = std::function<void(const SourceLine* line, Finding finding)>;

// Judges the whole configuration.
void judgeWhole(const Configuration& configuration, const Report& report);

}  // namespace check
