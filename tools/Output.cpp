#include "tools/Output.h"

#include <atomic>
#include <cstdio>

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

void writeError(std::string_view text) noexcept {
  write(text, stderr);
}

}  // namespace tools
