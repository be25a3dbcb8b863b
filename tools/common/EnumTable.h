// Tables with one row per enumerator, so that an enumerator is the index of its row.
//
//   static_assert(tools::isIndexedBy(rows, &Row::kind));
//
// makes the compiler refuse a table whose order differs from the enumeration's.
#pragma once

#include <cstddef>

namespace tools {

template <class Rows, class Row, class Enum>
constexpr bool isIndexedBy(const Rows& rows, Enum Row::*key) {
  std::size_t index = 0;
  for (const Row& row : rows) {
    if (static_cast<std::size_t>(row.*key) != index++) return false;
  }
  return true;
}

}  // namespace tools
