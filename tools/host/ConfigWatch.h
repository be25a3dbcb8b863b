// Notices when the files of a configuration have changed. Editors write in steps, replace a file by
// renaming another, or only touch it. So only the content counts, once it has stayed the same for a
// moment.
//
// Threads: one at a time.
#pragma once

#include <optional>
#include <string>

#include "tools/common/ConfigFiles.h"
#include "tools/host/SlotBoard.h"

namespace host {

class ConfigWatch {
 public:
  // Remembers the present content, for comparison. Throws std::runtime_error if the system can't
  // watch their folders.
  explicit ConfigWatch(std::string config);
  ~ConfigWatch();
  ConfigWatch(const ConfigWatch&) = delete;
  ConfigWatch& operator=(const ConfigWatch&) = delete;

  // Whether the content differs from that in use and from that when this last returned true. At
  // first, the content at the start is in use. Never waits, and reads the files only after
  // something has happened in their folders.
  bool hasChanged(Clock::time_point now);

  // From now on, the content for which hasChanged last returned true is in use.
  void accept() { inUse_ = latest_; }
  // From now on, no content is in use, and hasChanged returns true for whatever content settles.
  void forget();

 private:
  void watchFolders();
  bool hasEvents() const;

  const std::string config_;
  int descriptor_;
  std::optional<tools::ConfigFiles> inUse_;
  std::optional<tools::ConfigFiles> reported_;
  tools::ConfigFiles latest_;
  Clock::time_point nextReading_ = Clock::time_point::max();
};

}  // namespace host
