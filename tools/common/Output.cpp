#include "tools/common/Output.h"

#include <fmt/format.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <iostream>

namespace tools {
namespace {

std::atomic<bool> failed{false};

bool write(std::string_view text, std::FILE* file) noexcept {
  const bool written = std::fwrite(text.data(), 1, text.size(), file) == text.size();
  return std::fflush(file) == 0 && written;
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
  const auto valueOf = [](const char* name) {
    const char* const value = std::getenv(name);
    return std::string_view(value == nullptr ? "" : value);
  };
  return isatty(descriptor) == 1 && valueOf("NO_COLOR").empty() && valueOf("TERM") != "dumb";
}

}  // namespace tools
