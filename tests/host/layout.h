/* The layouts of the boundary as a compiler sees them. layout-rows.inc lists them; it is read once
 * as C and once as C++, and the test compares both with the numbers written there. */
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

/* Arrays of static storage. */
const LayoutRow* layoutRowsOfC(size_t* count);
const CodeRow* codeRowsOfC(size_t* count);

#ifdef __cplusplus
}
#endif

/* What layout-rows.inc is made of. The size of a field is taken from a null record, which sizeof
 * does not touch. */
#define LAYOUT_FIELD(record, field, expectedOffset, expectedSize)             \
  {#record "." #field, expectedOffset, expectedSize, offsetof(record, field), \
   sizeof(((record*)0)->field)},
#define LAYOUT_ELEMENT(record, field, expectedSize) \
  {#record "." #field "[]", 0, expectedSize, 0, sizeof(*((record*)0)->field)},
#define LAYOUT_RECORD(record, expectedSize) {#record, 0, expectedSize, 0, sizeof(record)},
#define LAYOUT_CODE(code, expected) {#code, expected, code},

#endif
