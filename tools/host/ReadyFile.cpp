#include "tools/host/ReadyFile.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace host {

ReadyFile::ReadyFile(std::string path) : path_(std::move(path)) {
  if (path_.empty()) return;
  make();
  std::filesystem::remove(path_);
}

ReadyFile::~ReadyFile() {
  std::error_code ignored;
  if (exists_) std::filesystem::remove(path_, ignored);
}

void ReadyFile::show(bool isReady) {
  if (path_.empty() || isReady == exists_) return;
  if (isReady) make();
  exists_ = isReady;
  std::error_code ignored;
  if (!isReady) std::filesystem::remove(path_, ignored);
}

void ReadyFile::make() const {
  std::ofstream file(path_);
  if (file) return;
  throw std::runtime_error(
      fmt::format("can't write the ready file {}: {}", path_, std::strerror(errno)));
}

}  // namespace host
