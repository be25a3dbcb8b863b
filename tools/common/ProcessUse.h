// The system resources that this process holds right now. Any thread.
#pragma once

#include <cstddef>

namespace tools {

struct ProcessUse {
  std::size_t threads = 0;
  std::size_t descriptors = 0;
};

ProcessUse processUse();

}  // namespace tools
