#include "tools/check/Comparison.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <deque>
#include <unordered_map>

namespace check {
namespace {

using standin::SlotSet;
using tools::ConfiguredSettings;
using tools::ConfiguredSlot;

// ---- Settings ---------------------------------------------------------------------------------

std::vector<SettingChange> compareSettings(const ConfiguredSettings& before,
                                           const ConfiguredSettings& after) {
  const auto word = [](bool isOn) { return std::string(isOn ? "true" : "false"); };
  std::vector<SettingChange> changes = {
      {"[Meters] Target", before.metersTarget, after.metersTarget},
      {"[Meters] EnableFastMeters", word(before.fastMeters), word(after.fastMeters)},
      {"[Meters] EnableSlowMeters", word(before.slowMeters), word(after.slowMeters)},
      {"[Engine] Target", before.engineTarget, after.engineTarget}};
  std::erase_if(changes, [](const SettingChange& each) { return each.before == each.after; });
  return changes;
}

// ---- Matching ---------------------------------------------------------------------------------

// What an entry can be recognised by.
enum Trait : unsigned {
  Set = 1,
  Direction = 2,  // meter or parameter
  Type = 4,
  Key = 8,
  CustomKey = 16,
};

// In the order in which entries are matched. The first one is unique in a configuration.
constexpr std::array<unsigned, 8> identities = {
    Set | Type | Key,       Set | Key | CustomKey,  Direction | Type | Key | CustomKey,
    Set | Type | CustomKey, Direction | Type | Key, Set | Key,
    Direction | Key,        Set | CustomKey};

// The traits of a slot as one text. Nothing if it lacks one.
std::optional<std::string> identityOf(const ConfiguredSlot& slot, unsigned traits) {
  std::string identity;
  if ((traits & Set) != 0) identity += nameOf(slot.set);
  if ((traits & Direction) != 0) identity += slot.set == SlotSet::Engine ? "engine" : "meters";
  identity += '\n';
  if ((traits & Type) != 0) identity += nameOf(slot.type);
  identity += '\n';
  if ((traits & CustomKey) != 0) {
    if (slot.nameIsGenerated) return std::nullopt;
    identity += slot.name;
  }
  identity += '\n';  // no name or key contains one
  if ((traits & Key) != 0) identity += slot.key;
  return identity;
}

// Which slot of the one list is which of the other.
class Matching {
 public:
  using Slots = std::vector<ConfiguredSlot>;

  Matching(const Slots& before, const Slots& after)
      : before_(before), after_(after), later_(before.size()), isMatched_(after.size()) {
    for (const unsigned traits : identities) match(traits);
  }

  const ConfiguredSlot* laterOf(std::size_t index) const { return later_[index]; }
  bool isNew(std::size_t index) const { return !isMatched_[index]; }

 private:
  void match(unsigned traits) {
    std::unordered_map<std::string, std::deque<std::size_t>> waiting;
    for (std::size_t i = 0; i < before_.size(); ++i) {
      if (later_[i] != nullptr) continue;
      if (const auto identity = identityOf(before_[i], traits)) waiting[*identity].push_back(i);
    }
    for (std::size_t i = 0; i < after_.size() && !waiting.empty(); ++i) {
      if (isMatched_[i]) continue;
      const auto identity = identityOf(after_[i], traits);
      const auto found = identity ? waiting.find(*identity) : waiting.end();
      if (found == waiting.end() || found->second.empty()) continue;
      later_[found->second.front()] = &after_[i];
      found->second.pop_front();
      isMatched_[i] = true;
    }
  }

  const Slots& before_;
  const Slots& after_;
  std::vector<const ConfiguredSlot*> later_;  // for each earlier slot
  std::vector<bool> isMatched_;               // for each later slot
};

}  // namespace

std::string_view nameOf(Change change) {
  switch (change) {
    case Change::Gone:
      return "gone";
    case Change::OtherType:
      return "other type";
    case Change::OtherRate:
      return "other rate";
    case Change::Renamed:
      return "renamed";
    case Change::Moved:
      return "moved";
    case Change::OtherKey:
      return "other key";
    case Change::OtherDefault:
      return "other default";
    case Change::New:
      break;
  }
  return "new";
}

std::vector<Change> SlotChange::changes() const {
  if (!after) return {Change::Gone};
  if (!before) return {Change::New};
  std::vector<Change> changes;
  const auto add = [&](bool differs, Change change) {
    if (differs) changes.push_back(change);
  };
  const bool sameList = before->type == after->type && before->set == after->set;
  add(before->type != after->type, Change::OtherType);
  add(before->set != after->set, Change::OtherRate);
  add(before->name != after->name, Change::Renamed);
  add(sameList && before->position != after->position, Change::Moved);
  add(before->key != after->key, Change::OtherKey);
  // As texts, in which nan equals itself. Defaults of different types can't be compared.
  add(before->type == after->type &&
          standin::textOf(before->defaultValue) != standin::textOf(after->defaultValue),
      Change::OtherDefault);
  return changes;
}

bool SlotChange::affectsHost() const {
  return changes().front() <= Change::Moved;
}

bool Comparison::affectsHost() const {
  return std::any_of(slots.begin(), slots.end(),
                     [](const SlotChange& each) { return each.affectsHost(); });
}

Comparison compare(const Configured& before, const Configured& after) {
  Comparison comparison{.settings = compareSettings(before.settings, after.settings)};
  const Matching matching(before.slots, after.slots);
  for (std::size_t i = 0; i < before.slots.size(); ++i) {
    SlotChange change{.before = before.slots[i]};
    if (const ConfiguredSlot* const later = matching.laterOf(i)) change.after = *later;
    if (!change.changes().empty()) comparison.slots.push_back(std::move(change));
  }
  for (std::size_t i = 0; i < after.slots.size(); ++i) {
    if (matching.isNew(i)) comparison.slots.push_back({.after = after.slots[i]});
  }
  return comparison;
}

}  // namespace check
