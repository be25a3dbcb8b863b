// A file in memory, for readers that want a path. It has no name in any folder, so that nothing is
// left behind, however the process ends.
//
// Threads: none of its own; it never changes once it is made.
// Ownership: it owns the file, which is gone when it and the children that inherited it are.
#pragma once

#include <string>

namespace standin {

class MemoryFile {
 public:
  // Throws std::system_error if there is no memory or descriptor for it.
  explicit MemoryFile(const std::string& text = "");
  ~MemoryFile();
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  // For this process and, as they inherit the descriptor, for children too.
  std::string path() const;

  int descriptor() const { return descriptor_; }

 private:
  int descriptor_;
};

}  // namespace standin
