// What the slots of a running module hold, and since when.
//
// The host is not told of writes, so the board looks at the memory: a value that came and went
// between two looks was not seen, and a text may be caught half old and half new, until the next
// look. The age of a slot is the time since a look found it changed; a value that was written again
// as it was does not count as a change.
//
// Threads: one thread samples, the one that made the board; all else is for any thread.
// Ownership: the slots' memory is the module's, read by `sample` only, so the module must run then.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <stop_token>
#include <string>
#include <utility>
#include <vector>

#include "standin/LoadedModule.h"
#include "tools/common/ConfiguredSlots.h"

namespace host {

using Clock = std::chrono::steady_clock;

// What of a slot never changes.
struct SlotLabel {
  standin::SlotSet set;
  gateway::ValueType type;
  std::string name;
  std::string key;  // empty if the configuration was changed between the start and its reading
};

struct SlotState {
  standin::SlotValue value;
  Clock::time_point changed;  // when a look found the value as it is; at first: of the first look
  std::uint64_t changes = 0;  // found since the start; 0: has not moved

  bool hasMoved() const { return changes > 0; }
};

class SlotBoard {
 public:
  // Takes the first look.
  SlotBoard(std::vector<standin::Slot> slots, const std::vector<tools::ConfiguredSlot>& configured);

  // In the host's order: fast, slow, engine. A slot's place here is its index below.
  const std::vector<SlotLabel>& labels() const { return labels_; }

  // Looks at all slots, at the moment `now`. A float that is not a number counts as a value: the
  // same bytes are no change.
  void sample(Clock::time_point now);

  // All states in the order of the labels, as of the latest look.
  std::vector<SlotState> states() const;

  struct Changes {
    std::uint64_t look = 0;  // number of the latest look: the next `since`
    Clock::time_point time;  // when it was taken
    std::vector<std::pair<std::size_t, SlotState>> slots;
  };
  // The slots that changed after look `since`, each once, with their latest state. Looks have
  // numbers that rise from 1; 0 gives all slots that ever changed.
  Changes changesSince(std::uint64_t since) const;

  // Blocks until there has been a look after `since`, for `limit`, or until `stop` is asked for.
  // False without such a look.
  bool waitForLook(std::uint64_t since, std::chrono::milliseconds limit,
                   const std::stop_token& stop = {}) const;

  // Changes found so far, of all slots together.
  std::uint64_t changeCount() const;

 private:
  const std::vector<standin::Slot> slots_;
  std::vector<SlotLabel> labels_;

  mutable std::mutex mutex_;  // of all below
  mutable std::condition_variable_any looked_;
  std::uint64_t look_ = 1;
  Clock::time_point lookTime_;
  std::uint64_t changeCount_ = 0;
  std::vector<SlotState> states_;
  std::vector<std::uint64_t> changedAt_;  // the look that found each slot's latest change
};

}  // namespace host
