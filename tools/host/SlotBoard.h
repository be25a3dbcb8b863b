// What the slots of a running module hold, and since when.
//
// A module writes to its slots without notice, so the board looks at the memory: it misses a value
// that comes and goes between two looks, and may catch a text half old and half new until the next
// look. The age of a slot is the time since a look found it changed; writing the same value again
// is no change.
//
// Threads: the thread that made the board samples; everything else is for any thread.
// Ownership: the slots' memory is the module's. Only `sample` reads it, while the module runs.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "standin/LoadedModule.h"
#include "tools/common/ConfiguredSlots.h"

namespace host {

using Clock = std::chrono::steady_clock;

// A slot's fixed properties.
struct SlotLabel {
  standin::SlotSet set;
  gateway::ValueType type;
  std::string name;
  std::string key;  // empty if the configuration's slots are not those of the module
};

struct SlotState {
  standin::SlotValue value;
  Clock::time_point changed;  // when a look first found this value
  std::uint64_t changes = 0;  // since the first look

  bool hasMoved() const { return changes > 0; }
};

class SlotBoard {
 public:
  // Takes the first look.
  SlotBoard(std::vector<standin::Slot> slots, const std::vector<tools::ConfiguredSlot>& configured);

  // In the host's order: fast, slow, engine. A slot's place here is its index below.
  const std::vector<SlotLabel>& labels() const { return labels_; }

  // Looks at all slots, at the moment `now`. A float changes when its bits do, also when it is not
  // a number.
  void sample(Clock::time_point now);

  // All states in the order of the labels, as of the latest look.
  std::vector<SlotState> states() const;

  struct Changes {
    std::uint64_t look = 0;  // number of the latest look: the next `since`
    Clock::time_point time;  // when it was taken
    std::vector<std::pair<std::size_t, SlotState>> slots;
  };
  // The slots that changed after look `since`, each once, with their latest state. The first look
  // has the number 1; 0 gives all slots that ever changed.
  Changes changesSince(std::uint64_t since) const;

  // Changes found so far, of all slots together.
  std::uint64_t changeCount() const;

 private:
  const std::vector<standin::Slot> slots_;
  std::vector<SlotLabel> labels_;

  mutable std::mutex mutex_;  // guards everything below
  std::uint64_t look_ = 1;
  Clock::time_point lookTime_;
  std::uint64_t changeCount_ = 0;
  std::vector<SlotState> states_;
  std::vector<std::uint64_t> changedAt_;  // the look that found each slot's latest change
};

}  // namespace host
