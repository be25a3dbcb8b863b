#include "tests/host/layout.h"

#include "host/sonalith.h"

#define COUNT_OF(array) (sizeof(array) / sizeof(array)[0])

const LayoutRow* layoutRowsOfC(size_t* count) {
  static const LayoutRow rows[] = {
#define LAYOUT_ROWS
#include "tests/host/layout-rows.inc"
#undef LAYOUT_ROWS
  };
  *count = COUNT_OF(rows);
  return rows;
}

const CodeRow* codeRowsOfC(size_t* count) {
  static const CodeRow rows[] = {
#define CODE_ROWS
#include "tests/host/layout-rows.inc"
#undef CODE_ROWS
  };
  *count = COUNT_OF(rows);
  return rows;
}
