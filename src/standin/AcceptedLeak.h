// While one of these lives, the leak sanitizer ignores what its thread allocates. It serves one
// case: the module's loop takes the completion of a SetParams call just as a stop begins. The loop
// drops that event, so nothing refers to the call any more and its memory is never released. The
// module accepts that, since the call itself is over.
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
