// What sub-commands say about a configuration that they can't use, and whether the module accepts
// it. Any thread.
#pragma once

#include <string>

namespace tools {

// Throws std::runtime_error with the system's reason, such as "No such file or directory", unless
// this is a file that the process may read.
void requireReadable(const std::string& config);

// Whether `gatewayctl check` accepts this configuration. A child process reads it, so no content
// can block or crash this one. Throws std::runtime_error if there is no verdict: the child can't be
// started, crashes or takes too long.
bool isAccepted(const std::string& config);

// Has `gatewayctl check` write to standard error why the module refuses this configuration. If that
// fails, says so there.
void explainRefusal(const std::string& config) noexcept;

}  // namespace tools
