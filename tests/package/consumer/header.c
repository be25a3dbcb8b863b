/* The header also compiles as C. */
#include <sonalith.h>

int consumer_module_size(void) {
  return (int)sizeof(sonalith_module);
}
