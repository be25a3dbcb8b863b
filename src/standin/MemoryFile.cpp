#include "standin/MemoryFile.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace standin {

MemoryFile::MemoryFile(const std::string& text) : descriptor_(memfd_create("standin", 0)) {
  const auto size = static_cast<ssize_t>(text.size());
  if (descriptor_ >= 0 && write(descriptor_, text.data(), text.size()) == size) return;
  const int error = errno;
  if (descriptor_ >= 0) close(descriptor_);
  throw std::system_error(error, std::generic_category(), "can't make a file in memory");
}

MemoryFile::~MemoryFile() {
  close(descriptor_);
}

std::string MemoryFile::path() const {
  return "/proc/self/fd/" + std::to_string(descriptor_);
}

}  // namespace standin
