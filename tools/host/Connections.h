// Follows the links of a running module: reads gRPC's accounts from time to time, and keeps what
// follows from them.
//
// Threads: made, sampled and destroyed by one thread; everything else is for any thread.
#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "module/grpc-gateway/ConfigManager.h"
#include "tools/host/CallWatch.h"
#include "tools/host/Links.h"

namespace host {

class Connections {
 public:
  // Make it before the module starts. Without `watchesCalls`, the module's calls stay as they are
  // in the engine, and all links are unknown.
  Connections(const gateway::ConfigManager& config, bool watchesCalls);

  // Reads the accounts, but not more often than four times a second.
  void sample(std::chrono::steady_clock::time_point now);

  Links links() const;

  // Null if no calls are watched.
  const CallWatch* calls() const { return calls_ ? &*calls_ : nullptr; }

 private:
  std::optional<CallWatch> calls_;
  const std::array<std::string, 3> targets_;  // empty for a link that is not used
  std::chrono::steady_clock::time_point nextReading_;

  mutable std::mutex mutex_;  // guards everything below
  Links links_;
};

}  // namespace host
