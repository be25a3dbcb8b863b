// A call at the simulator, for those who decide what it gets.
//
// Threads: members of Call may be called from any thread, also by a listener. None waits.
#pragma once

#include <grpcpp/support/status.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

enum class Method { Fast, Slow, SetParams };

// The method's name in events, commands and logs: "fast", "slow", "SetParams".
std::string_view nameOf(Method method);

// The method of this path on the wire, such as "/sonalith.grpc.Meters/GetMetersFast"; nothing if
// the simulator does not have it.
std::optional<Method> methodAt(std::string_view path);

// What came with a call.
struct Opening {
  Method method = Method::Fast;
  unsigned number = 0;       // counts per method from 1, in the order of the telling
  std::string request;       // the request message
  bool hasDeadline = false;  // whether the client set one
  std::vector<std::string>
      metadata;      // keys the client added: sorted, each once, none of gRPC's own
  std::string peer;  // where it comes from, in gRPC's words
};

// One call that has arrived. It is open until it was asked to end or the client cancelled it or
// went away; it may be kept and used beyond that, but then does nothing.
class Call {
 public:
  static constexpr std::uint64_t forever = std::numeric_limits<std::uint64_t>::max();

  virtual ~Call() = default;

  // Never changes.
  virtual const Opening& opening() const = 0;

  virtual bool isOpen() const = 0;

  // Open, and all that was to be sent has been written.
  virtual bool isIdle() const = 0;

  // Writes `message` `times` times (at least once), one after the other, behind what waits already:
  // it is queued, and never blocks. False if the call is not open. Each true is answered by one
  // CallListener::sent.
  virtual bool send(std::string message, std::uint64_t times = 1) = 0;

  // Lets go of what is queued, except for the one message that is being written. False if the call
  // is not open.
  virtual bool stop() = 0;

  // Ends the call with `code` when what is queued has been written; what would be sent forever is
  // stopped. For a method that is unary, OK needs one message sent before. False if the call is not
  // open.
  virtual bool end(grpc::StatusCode code) = 0;
};

// Hears of calls, on gRPC's threads: calls tell at the same time, but the lines of one call come in
// order, and `opened` comes for one call at a time. Should be quick.
class CallListener {
 public:
  virtual ~CallListener() = default;

  // The call has arrived, with its request. The first that is heard of it.
  virtual void opened(const std::shared_ptr<Call>& call) = 0;

  // One send has come to its end, with `count` messages written: fewer than were asked for if it
  // was stopped or the call is over.
  virtual void sent(const Call& call, std::uint64_t count) = 0;

  // The call is over: cancelled, or ended as asked. The last that is heard of it.
  virtual void closed(const Call& call, bool cancelled) = 0;
};

}  // namespace sim
