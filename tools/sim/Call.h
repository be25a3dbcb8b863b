// A call that has arrived at the simulator, as seen by the code that decides what it gets.
//
// Messages are raw bytes, so that requests can be shown exactly as they came, and anything can be
// sent, even what cannot be parsed or is larger than clients accept.
//
// Threads: any thread may call the members of a Call, a listener included. None of them waits.
#pragma once

#include <grpcpp/support/status.h>

#include <cstddef>
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

// The method with this path on the wire, such as "/sonalith.grpc.Meters/GetMetersFast". Nothing if
// the simulator does not serve it.
std::optional<Method> methodAt(std::string_view path);

// What is known about a call when it arrives.
struct Opening {
  Method method = Method::Fast;
  unsigned number = 0;       // per method, from 1, in the order of the announcements
  std::string request;       // the message
  bool hasDeadline = false;  // whether the client set one
  // The metadata keys that the client added, sorted and without duplicates.
  std::vector<std::string> metadata;
  std::string peer;  // where it comes from, as gRPC writes it
};

// A call is open until it is asked to end, or until its client cancels it or disappears. It may be
// kept and used after that, but then does nothing.
class Call {
 public:
  static constexpr std::uint64_t forever = std::numeric_limits<std::uint64_t>::max();

  virtual ~Call() = default;

  // Never changes.
  virtual const Opening& opening() const = 0;

  virtual bool isOpen() const = 0;

  // Open, with nothing left to write.
  virtual bool isIdle() const = 0;

  // Queues `message`, to be written `times` times (at least once). False if the call is not open;
  // otherwise one CallListener::sent follows.
  virtual bool send(std::string message, std::uint64_t times = 1) = 0;

  // Drops what is queued, except for the message that is being written. False if the call is not
  // open.
  virtual bool stop() = 0;

  // The bytes of the messages that are still to be written, not counting repetitions.
  virtual std::size_t waitingBytes() const = 0;

  // Ends the call with `status` after the queue has been written. A message that would be sent
  // forever is stopped. A unary call needs one message before it can end with OK. False if the call
  // is not open.
  virtual bool end(const grpc::Status& status) = 0;

  // The same, with a text that says who ended it, unless the code is OK.
  bool end(grpc::StatusCode code) {
    return end(grpc::Status(code, code == grpc::StatusCode::OK ? "" : "ended by the simulator"));
  }
};

// Receives the events of calls, on gRPC's threads. Several calls report at the same time, but the
// events of one call come in order, and no two `opened` run at once. Members should return quickly.
class CallListener {
 public:
  virtual ~CallListener() = default;

  // The call's first event: it has arrived, with its request.
  virtual void opened(const std::shared_ptr<Call>& call) = 0;

  // One send is over, with `count` messages written: fewer than requested if it was stopped or the
  // call has ended.
  virtual void sent(const Call& call, std::uint64_t count) = 0;

  // The call's last event: it was cancelled, or has ended as requested.
  virtual void closed(const Call& call, bool cancelled) = 0;
};

}  // namespace sim
