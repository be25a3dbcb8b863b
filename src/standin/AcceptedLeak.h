// Marks what is allocated on this thread, while it lives, as allowed to stay. For one case: a
// SetParams call whose completion the module's loop takes just when it is told to stop. The loop
// drops that event, nothing refers to the call any more, and its payload stays; the module accepts
// that, since a call that is over is all that is lost.
#pragma once

#if defined(__SANITIZE_ADDRESS__)
#define GATEWAY_LEAK_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define GATEWAY_LEAK_SANITIZER 1
#endif
#endif

#ifdef GATEWAY_LEAK_SANITIZER
#include <sanitizer/lsan_interface.h>
#endif

class AcceptedLeak {
 public:
#ifdef GATEWAY_LEAK_SANITIZER
  AcceptedLeak() {
    __lsan_disable();
  }
  ~AcceptedLeak() {
    __lsan_enable();
  }
#else
  AcceptedLeak() {}
  ~AcceptedLeak() {}
#endif
  AcceptedLeak(const AcceptedLeak&) = delete;
  AcceptedLeak& operator=(const AcceptedLeak&) = delete;
};
