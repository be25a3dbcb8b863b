#include "host/sonalith.h"

// Nothing is included before or beside it.
long standardOfCxx();
long standardOfCxx() {
  return __cplusplus;
}
