#include "tools/host/SlotChanges.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <map>
#include <tuple>
#include <utility>

#include "tools/common/Words.h"

namespace host {
namespace {

using tools::ConfiguredSlot;
using Slots = std::vector<ConfiguredSlot>;

std::string textOf(const ConfiguredSlot& slot) {
  return fmt::format("{} {} {} {}", standin::nameOf(slot.set), nameOf(slot.type), slot.position,
                     tools::printable(slot.name));
}

nlohmann::json jsonOf(const std::optional<ConfiguredSlot>& slot) {
  if (!slot) return nullptr;
  return {{"set", standin::nameOf(slot->set)},
          {"type", nameOf(slot->type)},
          {"position", slot->position},
          {"name", slot->name},
          {"key", slot->key}};
}

// Finds the earlier slot that each later one was, by the surest sign first.
class Matching {
 public:
  Matching(const Slots& before, const Slots& after)
      : before_(before), after_(after), isTaken_(before.size()), earlier_(after.size()) {
    match([](const ConfiguredSlot& slot) { return std::tuple(slot.set, slot.type, slot.key); });
    match([](const ConfiguredSlot& slot) { return std::tuple(slot.set, slot.key); });
    match([](const ConfiguredSlot& slot) {
      return std::tuple(slot.set == standin::SlotSet::Engine, slot.key);
    });
    // A generated name says nothing about what the slot is for.
    match([](const ConfiguredSlot& slot) {
      return std::tuple(slot.set, slot.nameIsGenerated ? std::string() : slot.name);
    });
  }

  std::vector<SlotChange> changes() const {
    std::vector<SlotChange> changes;
    for (std::size_t i = 0; i < after_.size(); ++i) {
      SlotChange change{{}, after_[i]};
      if (earlier_[i]) change.before = before_[*earlier_[i]];
      if (!change.kinds().empty()) changes.push_back(std::move(change));
    }
    for (std::size_t i = 0; i < before_.size(); ++i) {
      if (!isTaken_[i]) changes.push_back({before_[i], {}});
    }
    return changes;
  }

 private:
  // `signOf` returns what both slots have in common. An empty name or key is no sign.
  template <class SignOf>
  void match(const SignOf& signOf) {
    std::map<decltype(signOf(before_.front())), std::size_t> open;
    for (std::size_t i = before_.size(); i-- > 0;) {
      if (!isTaken_[i] && !isEmpty(signOf(before_[i]))) open[signOf(before_[i])] = i;
    }
    for (std::size_t i = 0; i < after_.size(); ++i) {
      if (earlier_[i]) continue;
      const auto found = open.find(signOf(after_[i]));
      if (found == open.end()) continue;
      earlier_[i] = found->second;
      isTaken_[found->second] = true;
      open.erase(found);
    }
  }

  template <class... Parts>
  static bool isEmpty(const std::tuple<Parts...>& sign) {
    return std::get<sizeof...(Parts) - 1>(sign).empty();
  }

  const Slots& before_;
  const Slots& after_;
  std::vector<bool> isTaken_;
  std::vector<std::optional<std::size_t>> earlier_;
};

}  // namespace

std::vector<std::string> SlotChange::kinds() const {
  if (!before) return {"new"};
  if (!after) return {"gone"};
  std::vector<std::string> kinds;
  const auto add = [&](const char* kind, bool isSo) {
    if (isSo) kinds.emplace_back(kind);
  };
  add("retyped", before->type != after->type);
  add("moved", before->set != after->set ||
                   (before->type == after->type && before->position != after->position));
  add("renamed", before->name != after->name);
  add("rekeyed", before->key != after->key);
  add("default", before->type == after->type && before->defaultValue != after->defaultValue);
  return kinds;
}

std::vector<SlotChange> changesBetween(const Slots& before, const Slots& after) {
  return Matching(before, after).changes();
}

std::string textOf(const SlotChange& change) {
  const std::string kinds = fmt::to_string(fmt::join(change.kinds(), ", "));
  if (!change.before || !change.after) {
    return fmt::format("{}: {}", kinds, textOf(change.after ? *change.after : *change.before));
  }
  std::string text = fmt::format("{}: {}", kinds, textOf(*change.after));
  if (textOf(*change.before) != textOf(*change.after)) {
    text += fmt::format(", was {}", textOf(*change.before));
  }
  if (change.before->key != change.after->key) {
    text += fmt::format(", key {}, was {}", tools::printable(change.after->key),
                        tools::printable(change.before->key));
  }
  return text;
}

nlohmann::json jsonOf(const SlotChange& change) {
  return {{"kinds", change.kinds()},
          {"before", jsonOf(change.before)},
          {"after", jsonOf(change.after)}};
}

}  // namespace host
