// printing.h - how GoogleTest prints readings. Include it in every test that compares them.
#ifndef TESTS_INI_PRINTING_H
#define TESTS_INI_PRINTING_H

#include <ostream>

#include "ini/conformance.h"

namespace ini::conformance {

inline void PrintTo(const Case& each, std::ostream* out) {
  *out << quote(each.name);
}

inline void PrintTo(const Pair& pair, std::ostream* out) {
  *out << describe(pair);
}

inline void PrintTo(const Reading& reading, std::ostream* out) {
  for (const Pair& pair : reading.pairs) *out << describe(pair) << '\n';
  *out << describeResult(reading);
}

}  // namespace ini::conformance

#endif
