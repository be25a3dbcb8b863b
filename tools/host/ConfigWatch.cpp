#include "tools/host/ConfigWatch.h"

#include <fmt/format.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <set>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "tools/common/Output.h"
#include "tools/common/Words.h"

namespace host {
namespace {

namespace fs = std::filesystem;

// How long the content has to stay the same.
constexpr std::chrono::milliseconds settling{200};

// The folder of a path; if that does not exist yet, the nearest folder above it that does.
std::string folderOf(const fs::path& path) {
  fs::path folder = fs::absolute(path).parent_path();
  std::error_code error;
  while (!fs::is_directory(folder, error) && folder.has_relative_path()) {
    folder = folder.parent_path();
  }
  return folder;
}

}  // namespace

ConfigWatch::ConfigWatch(std::string config)
    : config_(std::move(config)), descriptor_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
  if (descriptor_ < 0) throw std::runtime_error("can't watch files: the system's limit is reached");
  latest_ = tools::filesOf(config_);
  inUse_ = reported_ = latest_;
  try {
    watchFolders();
  } catch (...) {
    close(descriptor_);
    throw;
  }
  // Finds what changed while the folders were not yet watched.
  nextReading_ = Clock::now();
}

ConfigWatch::~ConfigWatch() {
  close(descriptor_);
}

// Also watches the folders that symbolic links lead to. Watching a folder twice has no effect.
void ConfigWatch::watchFolders() {
  constexpr unsigned events =
      IN_ATTRIB | IN_CLOSE_WRITE | IN_CREATE | IN_DELETE | IN_MODIFY | IN_MOVED_FROM | IN_MOVED_TO;
  std::set<std::string> folders;
  for (const auto& [path, text] : latest_) {
    std::error_code error;
    folders.insert(folderOf(path));
    folders.insert(folderOf(fs::weakly_canonical(path, error)));
  }
  for (const std::string& folder : folders) {
    // A folder that has just gone has an event in the folder above it.
    if (inotify_add_watch(descriptor_, folder.c_str(), events) >= 0 || errno == ENOENT) continue;
    const std::error_code error(errno, std::generic_category());
    throw std::runtime_error(fmt::format("can't watch {}: {}", folder, error.message()));
  }
}

bool ConfigWatch::hasEvents() const {
  alignas(inotify_event) std::array<char, 4096> events;
  bool hasSome = false;
  while (read(descriptor_, events.data(), events.size()) > 0) hasSome = true;
  return hasSome;
}

bool ConfigWatch::hasChanged(Clock::time_point now) {
  if (hasEvents() && nextReading_ > now + settling) nextReading_ = now + settling;
  if (now < nextReading_) return false;
  nextReading_ = Clock::time_point::max();
  tools::ConfigFiles files = tools::filesOf(config_);
  const bool isSettled = files == latest_;
  latest_ = std::move(files);
  try {
    watchFolders();
  } catch (const std::runtime_error& error) {
    tools::say({}, tools::printable(error.what()));
  }
  // After a refused edit is undone, the same edit counts as a change again.
  if (latest_ == inUse_) reported_ = inUse_;
  if (latest_ == reported_) return false;
  if (!isSettled) {
    nextReading_ = now + settling;
    return false;
  }
  reported_ = latest_;
  return true;
}

void ConfigWatch::forget() {
  inUse_.reset();
  reported_.reset();
}

}  // namespace host
