// The stand-in's engine: it keeps the registered callbacks and calls them when parameters change.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "host/sonalith.h"

// One engine; several modules may share it. Any thread.
struct sonalith_engine {
 public:
  sonalith_engine();
  ~sonalith_engine();
  sonalith_engine(const sonalith_engine&) = delete;
  sonalith_engine& operator=(const sonalith_engine&) = delete;

  // Calls every registered callback on this thread. Notifications from several threads may overlap.
  void notify(sonalith_keyValueList* changes);

  // The two operations of the boundary. removeCallback waits until the callback runs on no other
  // thread, and none of its calls begins afterwards; it returns false for an unknown handle. A
  // callback may remove itself. Handles are never reused and point to nothing.
  void* addCallback(sonalith_engineChangesCallback callback, void* user);
  bool removeCallback(void* handle);

  std::size_t callbackCount() const;

 private:
  struct Registration;

  void call(Registration& registration, sonalith_keyValueList* changes);
  bool enter(Registration& registration);  // false if it has been removed
  void leave(Registration& registration);

  mutable std::mutex mutex_;
  std::condition_variable idle_;
  std::vector<std::shared_ptr<Registration>> registrations_;
  std::uintptr_t lastHandle_ = 0;
};

namespace standin {
using Engine = sonalith_engine;
}  // namespace standin
