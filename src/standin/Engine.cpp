#include "standin/Engine.h"

#include <algorithm>
#include <cstdint>
#include <thread>

#include "standin/AcceptedLeak.h"

struct sonalith_engine::Registration {
  void* handle;
  sonalith_engineChangesCallback callback;
  void* user;
  bool removed;
  std::vector<std::thread::id> running;  // one entry for each call in progress
};

sonalith_engine::sonalith_engine() = default;
sonalith_engine::~sonalith_engine() = default;

void sonalith_engine::notify(sonalith_keyValueList* changes) {
  std::unique_lock lock(mutex_);
  const auto registrations = registrations_;
  lock.unlock();
  for (const auto& registration : registrations) call(*registration, changes);
}

void sonalith_engine::call(Registration& registration, sonalith_keyValueList* changes) {
  if (!enter(registration)) return;
  try {
    const AcceptedLeak callDroppedByAStop;
    registration.callback(changes, registration.user);
  } catch (...) {
    leave(registration);
    throw;
  }
  leave(registration);
}

bool sonalith_engine::enter(Registration& registration) {
  const std::lock_guard lock(mutex_);
  if (registration.removed) return false;
  registration.running.push_back(std::this_thread::get_id());
  return true;
}

void sonalith_engine::leave(Registration& registration) {
  const std::lock_guard lock(mutex_);
  auto& running = registration.running;
  running.erase(std::find(running.begin(), running.end(), std::this_thread::get_id()));
  idle_.notify_all();
}

void* sonalith_engine::addCallback(sonalith_engineChangesCallback callback, void* user) {
  const std::lock_guard lock(mutex_);
  // A handle is a number, not the address of anything.
  void* handle = reinterpret_cast<void*>(++lastHandle_);  // NOLINT(performance-no-int-to-ptr)
  registrations_.push_back(
      std::make_shared<Registration>(Registration{handle, callback, user, false, {}}));
  return handle;
}

bool sonalith_engine::removeCallback(void* handle) {
  std::unique_lock lock(mutex_);
  const auto found =
      std::find_if(registrations_.begin(), registrations_.end(),
                   [&](const auto& registration) { return registration->handle == handle; });
  if (found == registrations_.end()) return false;
  const auto registration = *found;
  registrations_.erase(found);
  registration->removed = true;
  idle_.wait(lock, [&] {
    return std::all_of(registration->running.begin(), registration->running.end(),
                       [](auto thread) { return thread == std::this_thread::get_id(); });
  });
  return true;
}

std::size_t sonalith_engine::callbackCount() const {
  const std::lock_guard lock(mutex_);
  return registrations_.size();
}
