#include "tools/host/SlotBoard.h"

#include <bit>
#include <variant>

namespace host {
namespace {

bool isSame(const standin::SlotValue& a, const standin::SlotValue& b) {
  const auto* x = std::get_if<float>(&a);
  const auto* y = std::get_if<float>(&b);
  if (x != nullptr && y != nullptr)
    return std::bit_cast<std::uint32_t>(*x) == std::bit_cast<std::uint32_t>(*y);
  return a == b;
}

// The file may have changed since the module read it: a key is known only if the configuration
// gives exactly the slots that the module made.
std::vector<SlotLabel> labelsOf(const std::vector<standin::Slot>& slots,
                                const std::vector<tools::ConfiguredSlot>& configured) {
  bool fits = slots.size() == configured.size();
  std::vector<SlotLabel> labels;
  for (const auto& slot : slots) {
    const std::size_t i = labels.size();
    labels.push_back({slot.set, gateway::ValueType{slot.description.valueType}, slot.name(), {}});
    fits = fits && slot.set == configured[i].set && slot.name() == configured[i].name;
  }
  for (std::size_t i = 0; fits && i < labels.size(); ++i) labels[i].key = configured[i].key;
  return labels;
}

}  // namespace

SlotBoard::SlotBoard(std::vector<standin::Slot> slots,
                     const std::vector<tools::ConfiguredSlot>& configured)
    : slots_(std::move(slots)),
      labels_(labelsOf(slots_, configured)),
      lookTime_(Clock::now()),
      changedAt_(slots_.size(), 0) {
  for (const auto& slot : slots_) states_.push_back({slot.read(), lookTime_});
}

void SlotBoard::sample(Clock::time_point now) {
  const std::lock_guard lock(mutex_);
  ++look_;
  lookTime_ = now;
  for (std::size_t i = 0; i < slots_.size(); ++i) {
    auto value = slots_[i].read();
    SlotState& state = states_[i];
    if (isSame(value, state.value)) continue;
    state = {std::move(value), now, state.changes + 1};
    changedAt_[i] = look_;
    ++changeCount_;
  }
}

std::vector<SlotState> SlotBoard::states() const {
  const std::lock_guard lock(mutex_);
  return states_;
}

SlotBoard::Changes SlotBoard::changesSince(std::uint64_t since) const {
  const std::lock_guard lock(mutex_);
  Changes changes{look_, lookTime_, {}};
  for (std::size_t i = 0; i < states_.size(); ++i) {
    if (changedAt_[i] > since) changes.slots.emplace_back(i, states_[i]);
  }
  return changes;
}

std::uint64_t SlotBoard::changeCount() const {
  const std::lock_guard lock(mutex_);
  return changeCount_;
}

}  // namespace host
