#include "tools/common/Configuration.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "tools/common/ChildProcess.h"

namespace tools {

void requireReadable(const std::string& config) {
  std::error_code error;
  if (access(config.c_str(), R_OK) != 0) error.assign(errno, std::generic_category());
  if (!error && std::filesystem::is_directory(config)) {
    error = std::make_error_code(std::errc::is_a_directory);
  }
  if (error) throw std::runtime_error(fmt::format("can't read {}: {}", config, error.message()));
}

void explainRefusal(const std::string& config) {
  ChildProcess checker(std::filesystem::read_symlink("/proc/self/exe"), {"check", "--", config},
                       {.in = -1, .out = STDERR_FILENO, .err = -1});
  checker.waitExit();
}

}  // namespace tools
