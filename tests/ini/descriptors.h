// descriptors.h - counts the open descriptors of this process, so that a test sees leaks.
#ifndef TESTS_INI_DESCRIPTORS_H
#define TESTS_INI_DESCRIPTORS_H

#include <cstddef>
#include <filesystem>
#include <iterator>

// Always includes the descriptor that the count itself needs.
inline std::ptrdiff_t openDescriptors() {
  const std::filesystem::directory_iterator open("/proc/self/fd");
  return std::distance(begin(open), end(open));
}

#endif
