/* The layouts of the boundary as a compiler sees them. layout-rows.inc lists them; the test reads
 * it as C and as C++, and compares both with the numbers in it. */
#ifndef TESTS_HOST_LAYOUT_H
#define TESTS_HOST_LAYOUT_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct LayoutRow {
  const char* name; /* "record.field", or "record" */
  size_t expectedOffset;
  size_t expectedSize;
  size_t offset;
  size_t size;
} LayoutRow;

typedef struct CodeRow {
  const char* name;
  long expected;
  long value;
} CodeRow;

/* Return static arrays. */
const LayoutRow* layoutRowsOfC(size_t* count);
const CodeRow* codeRowsOfC(size_t* count);

#ifdef __cplusplus
}
#endif

/* The macros of layout-rows.inc. They take the size of a field from a null record, which sizeof
 * does not evaluate. */
#define LAYOUT_FIELD(record, field, expectedOffset, expectedSize)             \
  {#record "." #field, expectedOffset, expectedSize, offsetof(record, field), \
   sizeof(((record*)0)->field)},
#define LAYOUT_ELEMENT(record, field, expectedSize) \
  {#record "." #field "[]", 0, expectedSize, 0, sizeof(*((record*)0)->field)},
#define LAYOUT_RECORD(record, expectedSize) {#record, 0, expectedSize, 0, sizeof(record)},
#define LAYOUT_CODE(code, expected) {#code, expected, code},

#endif
