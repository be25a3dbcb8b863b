// A file in memory, for readers that need a path. It has no name in any folder, so nothing remains
// however the process ends.
//
// Threads: any; it never changes.
// Ownership: it owns the file, which disappears with it and with the last child that inherited it.
#pragma once

#include <string>

namespace standin {

class MemoryFile {
 public:
  // Throws std::system_error if memory or descriptors run out.
  explicit MemoryFile(const std::string& text = "");
  ~MemoryFile();
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  // Valid in this process and in children, which inherit the descriptor.
  std::string path() const;

  int descriptor() const { return descriptor_; }

 private:
  int descriptor_;
};

}  // namespace standin
