#include "host/sonalith.h"

/* Nothing is included before or beside it. */
long standardOfC(void);
long standardOfC(void) {
  return __STDC_VERSION__;
}
