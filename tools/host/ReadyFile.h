// A file that exists while something is ready, for scripts and service managers that wait for it.
//
// Threads: one at a time.
// Ownership: the file is this object's, and goes with it. One that an earlier run has left is
// removed at once.
#pragma once

#include <string>

namespace host {

class ReadyFile {
 public:
  // An empty path means no file. Throws std::runtime_error if there can't be one at this path.
  explicit ReadyFile(std::string path);
  ~ReadyFile();
  ReadyFile(const ReadyFile&) = delete;
  ReadyFile& operator=(const ReadyFile&) = delete;

  // Makes or removes the file if that has changed. Throws std::runtime_error if it can't be made.
  void show(bool isReady);

 private:
  void make() const;

  const std::string path_;
  bool exists_ = false;
};

}  // namespace host
