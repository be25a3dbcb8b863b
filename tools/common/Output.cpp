#include "tools/common/Output.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <iostream>

#include "tools/common/Numbers.h"

namespace tools {
namespace {

std::atomic<bool> failed{false};

bool write(std::string_view text, std::FILE* file) noexcept {
  const bool written = std::fwrite(text.data(), 1, text.size(), file) == text.size();
  return std::fflush(file) == 0 && written;
}

std::string_view valueOf(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? "" : value;
}

}  // namespace

void writeOut(std::string_view text) noexcept {
  if (!write(text, stdout)) failed = true;
}

bool outputFailed() noexcept {
  return failed;
}

bool outputIsLost() noexcept {
  std::cout.flush();
  return failed || !std::cout || std::fflush(stdout) != 0 || std::ferror(stdout) != 0;
}

void writeError(std::string_view text) noexcept {
  write(text, stderr);
}

void say(std::string_view subcommand, std::string_view text) {
  const std::string_view blank = subcommand.empty() ? "" : " ";
  writeError(fmt::format("gatewayctl{}{}: {}\n", blank, subcommand, text));
}

bool showsColours(int descriptor) {
  return isatty(descriptor) == 1 && valueOf("NO_COLOR").empty() && valueOf("TERM") != "dumb";
}

std::size_t columnsOf(int descriptor) {
  const auto wanted = numberIn<std::size_t>(valueOf("COLUMNS"));
  if (wanted && *wanted > 0) return *wanted;
  winsize window{};
  const bool isTerminal = ioctl(descriptor, TIOCGWINSZ, &window) == 0;
  return isTerminal && window.ws_col > 0 ? window.ws_col : 80;
}

}  // namespace tools
