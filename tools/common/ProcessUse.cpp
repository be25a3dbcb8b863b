#include "tools/common/ProcessUse.h"

#include <filesystem>
#include <iterator>

namespace tools {
namespace {

std::size_t entriesOf(const char* folder) {
  const std::filesystem::directory_iterator entries(folder);
  return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

}  // namespace

ProcessUse processUse() {
  return {entriesOf("/proc/self/task"),
          entriesOf("/proc/self/fd") - 1};  // without the listing's own
}

}  // namespace tools
