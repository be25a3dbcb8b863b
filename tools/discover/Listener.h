// Listens to both streams of a meter server, on a connection as the module makes it, and notes what
// comes. Unlike the module it goes on behind a message that can't be read, and does not open a
// stream again that has ended.
//
// Threads: the streams run on gRPC's threads; members are for one thread.
// Ownership: a Listener owns its connection and calls; they are over when it is destroyed.
#pragma once

#include <grpcpp/support/status.h>

#include <array>
#include <memory>
#include <optional>
#include <string>

#include "standin/LoadedModule.h"
#include "tools/discover/Sightings.h"

namespace discover {

// How a stream ended by itself.
struct StreamEnd {
  grpc::Status status;
  bool wasConnected;  // false: there was no connection at that moment
};

struct Heard {
  Sightings sightings;
  std::optional<StreamEnd> fastEnd;  // nothing: it was open to the end
  std::optional<StreamEnd> slowEnd;
  bool connected = false;  // at the end

  const std::optional<StreamEnd>& endOf(standin::SlotSet rate) const {
    return rate == standin::SlotSet::Fast ? fastEnd : slowEnd;
  }
};

class Listener {
 public:
  // Begins to connect and asks for both streams. Throws std::system_error if the system has no
  // descriptor for it.
  explicit Listener(const std::string& target);
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  // Becomes readable when both streams have ended; only to be waited for.
  int overDescriptor() const;

  // Ends listening, and tells what came until now. To be called once.
  Heard finish();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace discover
