#include "tools/common/Configuration.h"

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <system_error>

#include "tools/common/ChildProcess.h"
#include "tools/common/ExitCode.h"
#include "tools/common/Output.h"
#include "tools/common/Words.h"

namespace tools {
namespace {

// Far more than the largest files need on a busy machine.
constexpr std::chrono::seconds checkLimit{30};

bool endsWithin(std::chrono::milliseconds limit, const ChildProcess& child) {
  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + limit;
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
    if (left.count() <= 0) return false;
    pollfd ended{child.endDescriptor(), POLLIN, 0};
    if (poll(&ended, 1, static_cast<int>(left.count())) > 0) return true;
  }
}

// Runs `gatewayctl check`, even if the program's file has been replaced. Returns its exit code.
int check(const std::string& config, const ChildStreams& streams) {
  ChildProcess checker("/proc/self/exe", {"check", "--", config}, streams);
  if (endsWithin(checkLimit, checker)) return checker.waitExit();
  throw std::runtime_error(
      fmt::format("can't check {}: it took more than {} s", config, checkLimit.count()));
}

}  // namespace

void requireReadable(const std::string& config) {
  std::error_code error;
  if (access(config.c_str(), R_OK) != 0) error.assign(errno, std::generic_category());
  if (!error && std::filesystem::is_directory(config)) {
    error = std::make_error_code(std::errc::is_a_directory);
  }
  if (error) throw std::runtime_error(fmt::format("can't read {}: {}", config, error.message()));
}

bool isAccepted(const std::string& config) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> sink(std::fopen("/dev/null", "r+e"),
                                                             std::fclose);
  if (!sink) throw std::system_error(errno, std::generic_category(), "/dev/null");
  const int null = fileno(sink.get());
  const int code = check(config, {.in = null, .out = null, .err = null});
  if (code > ExitCode::WrongUse) {
    throw std::runtime_error(fmt::format("can't check {}: {}", config, describeExit(code)));
  }
  return code == ExitCode::Done;
}

void explainRefusal(const std::string& config) noexcept try {
  check(config, {.in = -1, .out = STDERR_FILENO, .err = -1});
} catch (const std::exception& error) {
  say({}, printable(error.what()));
}

}  // namespace tools
