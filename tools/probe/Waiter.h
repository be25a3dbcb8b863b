// Waiting for what gRPC's threads see, without missing the user's wish to end.
//
// Threads: any may signal an Event; one thread waits.
// Ownership: an Event owns its descriptor. A Waiter borrows the signals.
#pragma once

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "tools/common/Terminal.h"

namespace probe {

using tools::Clock;

// A user asked the program to end.
struct Interrupted {};

class Event {
 public:
  // Throws std::system_error if the system has no descriptor left.
  Event() {
    if (descriptor_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
  }
  ~Event() { close(descriptor_); }
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;

  void signal() const { eventfd_write(descriptor_, 1); }
  void clear() const {
    eventfd_t count = 0;
    eventfd_read(descriptor_, &count);
  }
  // Becomes readable when the event is signalled, until it is cleared.
  int descriptor() const { return descriptor_; }

 private:
  const int descriptor_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
};

class Waiter {
 public:
  explicit Waiter(const tools::SignalDescriptor& signals) : signals_(signals) {}

  // Waits until the descriptor is readable, or until `until`; may return early. Throws Interrupted.
  void wait(int descriptor, Clock::time_point until) const {
    if (tools::waitFor(signals_, descriptor, until) == tools::Arrival::Signal) throw Interrupted();
  }

  // Waits until `isDone` holds, which is asked again after each event, or until `until`. Returns
  // whether it holds.
  template <class IsDone>
  bool waitUntil(const Event& event, Clock::time_point until, const IsDone& isDone) const {
    for (;;) {
      event.clear();
      if (isDone()) return true;
      if (Clock::now() >= until) return false;
      wait(event.descriptor(), until);
    }
  }

 private:
  const tools::SignalDescriptor& signals_;
};

}  // namespace probe
