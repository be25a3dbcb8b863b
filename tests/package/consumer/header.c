/* The header is C, too. */
#include <sonalith.h>

int consumer_module_size(void) {
  return (int)sizeof(sonalith_module);
}
