// Opens the files of a configuration and delivers their lines in the order in which the module
// reads them: the lines of a dedicated file follow the File line that names it. It judges nothing.
//
// The module nests dedicated files without a limit. Here a list holds the open files, which shows
// when a file includes itself.
//
// Threads: one at a time. Memory: one chunk for each open file, and the names of all files.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "tools/check/Finding.h"
#include "tools/check/Overlay.h"
#include "tools/check/Scanner.h"

namespace check {

// The main file can't be read, or is too large to be checked. what() says why, without the name of
// the file.
struct UncheckableFile : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct WalkLimits {
  std::size_t depth = 100;                   // of nested dedicated files
  std::size_t files = 1000;                  // dedicated files in all
  std::size_t bytes = std::size_t{4} << 30;  // in all dedicated files, or in the main file
  std::size_t entries = 1000000;             // kept by the judge
};

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

class Walk {
 public:
  // Opens the main file, which messages call `name`. Reads the texts of the overlay in place of
  // their files. Throws UncheckableFile.
  Walk(const std::string& path, const std::string& name, const WalkLimits& limits, Overlay overlay);

  enum class Step {
    Line,
    FileEnd,  // file() has no more lines; the next step continues the file that named it
    End,      // the main file has ended
  };
  Step next();

  // All files so far, the main file first.
  const std::deque<SourceFile>& files() const { return files_; }
  const SourceFile& mainFile() const { return files_.front(); }
  // The innermost open file and its current line.
  const SourceFile& file() const { return *frames_.back().source; }
  const Scanner& scanner() const { return *frames_.back().scanner; }
  const Line& line() const { return scanner().line(); }
  std::uint64_t order() const { return order_; }
  // A copy of the current line. The walk must outlive it.
  SourceLine keptLine(std::shared_ptr<const std::string> section) const;

  // What became of a dedicated file. The module would never finish reading the last three.
  enum class Entering { Entered, Unreadable, LeadsBack, MayBeEndless, TooMany };
  struct Entered {
    Entering result;
    std::string problem = {};  // why the file is not read, as part of a sentence
  };
  // Opens the file that the current line names. Its lines come next.
  Entered enter(const std::string& path);

 private:
  struct Opened;
  struct Frame {
    std::unique_ptr<std::FILE, FileCloser> file;
    std::unique_ptr<Scanner> scanner;
    dev_t device;
    ino_t inode;
    const SourceFile* source;
  };

  Opened openFile(const std::string& name) const;
  void push(Opened opened, SourceFile source);
  bool isOpen(const Opened& opened) const;

  const WalkLimits limits_;
  const Overlay overlay_;
  std::deque<SourceFile> files_;
  std::vector<Frame> frames_;  // the main file first
  bool hasEnded_ = false;      // the innermost file
  std::uint64_t order_ = 0;
  std::size_t included_ = 0;
  std::size_t includedBytes_ = 0;
};

}  // namespace check
