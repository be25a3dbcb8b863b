// Tells the thread sanitizer that gRPC runs the reactions of one call in order: each reaction sees
// everything written before its operation was started. The sanitizer can't see this by itself,
// since the distribution's gRPC is not instrumented. Does nothing in other builds.
#pragma once

#if defined(__SANITIZE_THREAD__)
#define GATEWAY_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define GATEWAY_THREAD_SANITIZER 1
#endif
#endif

#ifdef GATEWAY_THREAD_SANITIZER
extern "C" {
void __tsan_acquire(void* address);
void __tsan_release(void* address);
}
#endif

// Put one at the beginning of each reaction and of each function that starts operations. It then
// happens after all that have ended for the same call.
class ReactionOrder {
 public:
#ifdef GATEWAY_THREAD_SANITIZER
  explicit ReactionOrder(void* call) : call_(call) {
    __tsan_acquire(call_);
  }
  ~ReactionOrder() {
    __tsan_release(call_);
  }
#else
  explicit ReactionOrder(void* call) : call_(call) {}
  ~ReactionOrder() {}
#endif
  ReactionOrder(const ReactionOrder&) = delete;
  ReactionOrder& operator=(const ReactionOrder&) = delete;

 private:
  [[maybe_unused]] void* call_;
};
