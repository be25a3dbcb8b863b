// A file that takes thousands of texts, one after the other. It is in memory, because a disk would
// slow each of them down.
#pragma once

#include <unistd.h>

#include <stdexcept>
#include <string>

#include "standin/MemoryFile.h"

class RewrittenFile {
 public:
  std::string path() const { return file_.path(); }
  int descriptor() const { return file_.descriptor(); }

  // Replaces the text and returns the path.
  std::string write(const std::string& text) {
    const auto size = static_cast<ssize_t>(text.size());
    if (ftruncate(file_.descriptor(), 0) != 0 ||
        pwrite(file_.descriptor(), text.data(), text.size(), 0) != size) {
      throw std::runtime_error("can't write to memory");
    }
    return path();
  }

 private:
  standin::MemoryFile file_;
};
