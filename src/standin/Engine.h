// The stand-in's engine: who listens to its changes, and how they are told.
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

  // Calls every registered callback on this thread. Notifications of several threads may overlap.
  void notify(sonalith_keyValueList* changes);

  // The two operations. removeCallback returns only when no call of the callback is running on
  // another thread, and none comes afterwards; false if there is no such callback. It may be called
  // from within the callback itself. Handles are never used again and point to nothing.
  void* addCallback(sonalith_engineChangesCallback callback, void* user);
  bool removeCallback(void* handle);

  std::size_t callbackCount() const;

 private:
  struct Registration;

  void call(Registration& registration, sonalith_keyValueList* changes);
  bool enter(Registration& registration);  // false if it is removed
  void leave(Registration& registration);

  mutable std::mutex mutex_;
  std::condition_variable idle_;
  std::vector<std::shared_ptr<Registration>> registrations_;
  std::uintptr_t lastHandle_ = 0;
};

namespace standin {
using Engine = sonalith_engine;
}  // namespace standin
