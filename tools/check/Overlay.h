// Texts that stand in for those of files, such as what an editor has not saved yet. Whatever reads
// a configuration with an overlay reads these texts in place of the files.
//
// Threads: any; an overlay that is being changed, one at a time. Ownership: copies share the texts.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "standin/MemoryFile.h"

namespace check {

// Whether both are names of one file, such as a link and its target.
bool isSameFile(const std::string& a, const std::string& b);

class Overlay {
 public:
  // From now on the file has this text, whether or not it exists. Throws std::system_error if
  // memory or descriptors run out.
  void set(const std::string& path, const std::string& text);

  bool empty() const { return texts_.empty(); }

  // The path of the text that stands in for a file, or the same path. Another name of the file,
  // such as a link, leads to the same text.
  std::string placeOf(const std::string& path) const;

 private:
  struct Text {
    std::string path;
    std::shared_ptr<const standin::MemoryFile> file;
  };
  std::vector<Text> texts_;
};

struct WalkLimits;

// A configuration for a reader that opens files itself, as the module does: a copy in which the
// File lines name the texts of the overlay. The reader makes the same of it as it would of files
// with these texts.
class OverlaidCopy {
 public:
  // The configuration must be finite (Judge.h). Throws std::system_error as Overlay::set, and
  // UncheckableFile if the file has become unreadable.
  OverlaidCopy(const std::string& path, const WalkLimits& limits, const Overlay& overlay);

  // Of the main file. Valid while the copy lives.
  const std::string& path() const { return path_; }

 private:
  std::vector<std::unique_ptr<standin::MemoryFile>> files_;
  std::string path_;
};

}  // namespace check
