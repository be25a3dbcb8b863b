// Follows the links of a running module: reads gRPC's accounts from time to time, and keeps what
// follows from them.
//
// Threads: made, sampled and destroyed by one thread; everything else is for any thread.
#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "module/grpc-gateway/ConfigManager.h"
#include "tools/host/CallWatch.h"
#include "tools/host/Links.h"

namespace host {

class Connections {
 public:
  // Make it before the module starts. Borrows `calls`; if it is null, all links are unknown. Calls
  // of an earlier run count only in the totals.
  Connections(const gateway::ConfigManager& config, const CallWatch* calls);

  // Reads the accounts, but not more often than four times a second.
  void sample(std::chrono::steady_clock::time_point now);

  Links links() const;

 private:
  std::optional<CallAccount> account(std::string_view method) const;

  const CallWatch* const calls_;
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  const std::array<std::string, 3> targets_;  // empty for a link that is not used
  std::chrono::steady_clock::time_point nextReading_;

  mutable std::mutex mutex_;  // guards everything below
  Links links_;
};

}  // namespace host
