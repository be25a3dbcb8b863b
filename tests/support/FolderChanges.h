// Waits for what another process does to the files of a folder. Any thread.
#pragma once

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <functional>
#include <string>
#include <system_error>

#include "tests/support/SimProcess.h"

class FolderChanges {
 public:
  explicit FolderChanges(const std::string& folder) : changes_(inotify_init1(IN_CLOEXEC)) {
    const unsigned events = IN_CREATE | IN_DELETE | IN_MODIFY | IN_MOVED_FROM | IN_MOVED_TO;
    if (inotify_add_watch(changes_, folder.c_str(), events) < 0)
      throw std::system_error(errno, std::generic_category(), folder);
  }
  ~FolderChanges() { close(changes_); }
  FolderChanges(const FolderChanges&) = delete;
  FolderChanges& operator=(const FolderChanges&) = delete;

  // Returns false when this time has passed without a change.
  bool wait(std::chrono::milliseconds most) {
    pollfd ready{.fd = changes_, .events = POLLIN, .revents = 0};
    std::array<char, 4096> events;
    return poll(&ready, 1, static_cast<int>(most.count())) > 0 &&
           read(changes_, events.data(), events.size()) > 0;
  }

 private:
  const int changes_;
};

// Looks at once, and again after each change in the folder. Returns false if the condition still
// does not hold when patience runs out.
inline bool waitForFiles(const std::string& folder, const std::function<bool()>& condition) {
  FolderChanges changes(folder);
  const auto end = std::chrono::steady_clock::now() + patience;
  while (!condition()) {
    const auto left = end - std::chrono::steady_clock::now();
    if (!changes.wait(std::max(std::chrono::ceil<std::chrono::milliseconds>(left),
                               std::chrono::milliseconds::zero()))) {
      return condition();
    }
  }
  return true;
}
