#include <sonalith.h>

unsigned long user() {
  return sizeof(sonalith_module);
}
