// Listens to both streams of a meter server, over a connection like the module's, and records what
// comes. Unlike the module, it continues after a message that can't be read, and does not reopen a
// stream that has ended.
//
// Memory: what Sightings keeps, and receiveLimit. gRPC ends the streams when a message is longer
// than receivedMessageLimit, or when it has received more than receiveLimit that is not yet read.
// Threads: the streams run on gRPC's threads; members are for one thread.
// Ownership: a Listener owns its connection and its calls, and ends them when it is destroyed.
#pragma once

#include <grpcpp/support/status.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "standin/LoadedModule.h"
#include "tools/common/MeterStream.h"
#include "tools/common/Sightings.h"

namespace tools {

// Longer than the module accepts, so that a message of up to this size can be reported without
// ending the stream.
inline constexpr int receivedMessageLimit = 8 << 20;

// How a stream ended while the Listener listened.
struct StreamEnd {
  grpc::Status status;
  bool wasConnected;  // false: there was no connection at that moment
};

struct Heard {
  Sightings sightings = Sightings();
  std::optional<StreamEnd> fastEnd = {};  // nothing: it stayed open
  std::optional<StreamEnd> slowEnd = {};
  bool connected = false;  // at the end

  // Whether there was a connection at any time.
  bool wasReached() const {
    return connected || (fastEnd && fastEnd->wasConnected) || (slowEnd && slowEnd->wasConnected) ||
           sightings.messagesOf(standin::SlotSet::Fast).messages > 0 ||
           sightings.messagesOf(standin::SlotSet::Slow).messages > 0;
  }
  const std::optional<StreamEnd>& endOf(standin::SlotSet rate) const {
    return rate == standin::SlotSet::Fast ? fastEnd : slowEnd;
  }
};

// Follows the streams of a Listener while they run. gRPC's threads call it, one at a time. It must
// not throw, and must not call the Listener.
class ListenerObserver {
 public:
  virtual ~ListenerObserver() = default;
  // `sightings` already include the new message, and are valid during this call.
  virtual void took(standin::SlotSet rate, std::size_t bytes, const Sightings& sightings) = 0;
  // The stream's last event. Not called once the Listener itself ends the streams.
  virtual void ended(standin::SlotSet rate, const grpc::Status& status) = 0;
};

class Listener {
 public:
  // Starts connecting and opens both streams. Adds what comes to `sightings`. Throws
  // std::system_error if the system has no descriptor for the event. An observer has to outlive the
  // Listener.
  explicit Listener(const std::string& target, Sightings sightings = Sightings(),
                    ListenerObserver* observer = nullptr);
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  // Becomes readable when both streams have ended, or all that was expected has come; only for
  // waiting.
  int overDescriptor() const;

  // Calls `use` with what has come so far; `connected` is not set. The streams wait meanwhile, so
  // it should return quickly. It must not call the Listener.
  void look(const std::function<void(const Heard&)>& use) const;

  // Cancels one stream. The other continues.
  void cancel(standin::SlotSet rate);

  // Stops listening and returns what has come. Call this once.
  Heard finish();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// Prepares the process for Listeners. Call it before the first one.
void prepareToListen();

// A whole run of a sub-command that listens.
struct Listening {
  Heard heard;
  double seconds = 0;  // how long it lasted
  bool wasInterrupted = false;
};

// Listens until both streams have ended, all that was expected has come, the time is over, or
// SIGINT or SIGTERM arrives. Blocks these signals as SignalDescriptor does, so call it before any
// thread starts. Throws as SignalDescriptor and Listener do.
Listening listen(const std::string& target, double seconds, Sightings sightings = Sightings());

}  // namespace tools
