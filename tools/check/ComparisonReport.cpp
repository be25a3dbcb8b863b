#include "tools/check/ComparisonReport.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <map>
#include <vector>

#include "tools/check/Report.h"
#include "tools/check/Text.h"
#include "tools/common/Words.h"

namespace check {
namespace {

using tools::ConfiguredSlot;

constexpr std::size_t shownOfEachGroup = 20;

// ---- Lines ------------------------------------------------------------------------------------

// "fast float "in.level"".
std::string subjectOf(const ConfiguredSlot& slot) {
  return fmt::format("{} {} {}", nameOf(slot.set), nameOf(slot.type), inQuotes(slot.key));
}

std::string defaultOf(const ConfiguredSlot& slot) {
  const std::string text = standin::textOf(slot.defaultValue);
  return slot.type == gateway::ValueType::String ? inQuotes(text) : text;
}

// The old and the new value of everything that differs.
std::string differencesOf(const ConfiguredSlot& before, const ConfiguredSlot& after) {
  std::vector<std::string> differences;
  const auto add = [&](std::string_view what, const std::string& old, const std::string& now) {
    if (old != now) differences.push_back(fmt::format("{} {} -> {}", what, old, now));
  };
  add("type", nameOf(before.type), nameOf(after.type));
  add("rate", std::string(nameOf(before.set)), std::string(nameOf(after.set)));
  add("name", tools::printable(before.name), tools::printable(after.name));
  add("position", std::to_string(before.position), std::to_string(after.position));
  add("key", inQuotes(before.key), inQuotes(after.key));
  if (before.type == after.type) add("default", defaultOf(before), defaultOf(after));
  return fmt::to_string(fmt::join(differences, ", "));
}

std::string lineOf(const SlotChange& change) {
  const ConfiguredSlot& slot = change.before ? *change.before : *change.after;
  if (change.before && change.after) {
    return fmt::format("{}: {}", subjectOf(slot), differencesOf(slot, *change.after));
  }
  return fmt::format("{}: name {}, position {}", subjectOf(slot), tools::printable(slot.name),
                     slot.position);
}

// ---- Groups -----------------------------------------------------------------------------------

struct ChangeGroup {
  std::size_t size = 0;
  std::string lines = {};  // the first few
};

// By the worst change of each slot.
std::map<Change, ChangeGroup> groupsOf(const Comparison& comparison) {
  std::map<Change, ChangeGroup> groups;
  for (const SlotChange& change : comparison.slots) {
    ChangeGroup& group = groups[change.changes().front()];
    if (group.size++ < shownOfEachGroup) group.lines += fmt::format("  {}\n", lineOf(change));
  }
  return groups;
}

std::string textOf(const std::vector<SettingChange>& settings) {
  if (settings.empty()) return {};
  std::string text = fmt::format("settings ({})\n", settings.size());
  for (const auto& [setting, before, after] : settings) {
    text += fmt::format("  {}: {} -> {}\n", setting, inQuotes(before), inQuotes(after));
  }
  return text;
}

std::string verdictOn(const Comparison& comparison) {
  if (comparison.isEmpty()) return "no difference";
  return comparison.affectsHost() ? "a host that uses the old slots has to be adapted"
                                  : "the old slots keep their names, types and places";
}

}  // namespace

std::string textOf(const Comparison& comparison, const std::string& before,
                   const std::string& after) {
  std::string text = textOf(comparison.settings);
  std::vector<std::string> counts;
  if (!comparison.settings.empty()) {
    counts.push_back(counted(comparison.settings.size(), "setting"));
  }
  for (const auto& [change, group] : groupsOf(comparison)) {
    text += fmt::format("{} ({})\n{}", nameOf(change), group.size, group.lines);
    if (group.size > shownOfEachGroup) {
      text += fmt::format("  and {} more\n", group.size - shownOfEachGroup);
    }
    counts.push_back(fmt::format("{} {}", group.size, nameOf(change)));
  }
  if (!counts.empty()) counts.push_back("");
  return fmt::format("{}{} -> {}: {}{}\n", text, before, after, fmt::join(counts, ", "),
                     verdictOn(comparison));
}

nlohmann::json jsonOf(const Comparison& comparison) {
  nlohmann::json settings = nlohmann::json::array();
  for (const auto& [setting, before, after] : comparison.settings) {
    settings.push_back({{"setting", setting}, {"before", before}, {"after", after}});
  }
  nlohmann::json slots = nlohmann::json::array();
  const auto orNull = [](const std::optional<ConfiguredSlot>& slot) {
    return slot ? jsonOf(*slot) : nlohmann::json();
  };
  for (const SlotChange& change : comparison.slots) {
    nlohmann::json changes = nlohmann::json::array();
    for (const Change each : change.changes()) changes.push_back(nameOf(each));
    slots.push_back({{"changes", std::move(changes)},
                     {"before", orNull(change.before)},
                     {"after", orNull(change.after)}});
  }
  return {{"affects_host", comparison.affectsHost()},
          {"settings", std::move(settings)},
          {"slots", std::move(slots)}};
}

}  // namespace check
