// The meters that a server sends, as choices for the entries of a configuration.
//
// It listens in the background. No member waits for the network.
//
// Threads: one at a time; gRPC's threads receive.
// Memory: what a Listener keeps, whatever the server sends.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tools/common/Listener.h"

namespace lsp {

// How well a key suits an entry.
enum class Fit {
  Good,        // it comes at the rate of the entry, with the type of its section
  Other,       // it comes at another rate or with another type
  Configured,  // the list has it already
};

struct KeyChoice {
  std::string key;
  Fit fit = Fit::Other;
  std::string description;  // the rates and types with which it comes: "fast float, slow int"
};

// Where the entry is.
struct EntryList {
  standin::SlotSet rate;
  gateway::ValueType type;
  std::set<std::string> keys{};  // of its other entries
};

class MeterServer {
 public:
  // Starts connecting to the target, which must be free of faults.
  explicit MeterServer(std::string target);

  // Opens the streams again if both have ended, and keeps what has come. If nothing has ever come,
  // the first such call returns the reasons. Otherwise the text is empty.
  std::string keepListening();

  // The keys that have come so far, without those that the module can't carry. The best come first,
  // equally good ones in alphabetical order.
  std::vector<KeyChoice> choicesFor(const EntryList& list) const;

 private:
  const std::string target_;
  std::optional<tools::Listener> listener_;
  bool hasComplained_ = false;
};

}  // namespace lsp
