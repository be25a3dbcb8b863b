#include "host/sonalith.h"

// Includes nothing else.
long standardOfCxx();
long standardOfCxx() {
  return __cplusplus;
}
