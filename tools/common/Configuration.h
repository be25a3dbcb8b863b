// What sub-commands say about a configuration that they can't use. Any thread.
#pragma once

#include <string>

namespace tools {

// Throws std::runtime_error with the system's reason, such as "No such file or directory", unless
// this is a file that the process may read.
void requireReadable(const std::string& config);

// Has `gatewayctl check` write to standard error why the module refuses this configuration. Throws
// std::system_error if it can't be started.
void explainRefusal(const std::string& config);

}  // namespace tools
