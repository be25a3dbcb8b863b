#include "host/sonalith.h"

/* Includes nothing else. */
long standardOfC(void);
long standardOfC(void) {
  return __STDC_VERSION__;
}
