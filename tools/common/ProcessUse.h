// What this process holds of the system at a moment. Any thread.
#pragma once

#include <cstddef>

namespace tools {

struct ProcessUse {
  std::size_t threads = 0;
  std::size_t descriptors = 0;
};

ProcessUse processUse();

}  // namespace tools
