// descriptors.h - counts the descriptors that this process has open, to see what a pass leaves.
#ifndef TESTS_INI_DESCRIPTORS_H
#define TESTS_INI_DESCRIPTORS_H

#include <cstddef>
#include <filesystem>
#include <iterator>

// The one of the count itself is among them, every time.
inline std::ptrdiff_t openDescriptors() {
  const std::filesystem::directory_iterator open("/proc/self/fd");
  return std::distance(begin(open), end(open));
}

#endif
