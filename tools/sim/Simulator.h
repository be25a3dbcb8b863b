// The server side of both services: takes calls, tells of them, and sends what it is told to send.
//
// Messages are raw bytes, so that requests can be shown exactly as they came and anything can be
// sent, also what cannot be parsed or is larger than clients accept. The Simulator itself decides
// nothing: a CallListener hears of each call, and whoever wants something sent asks a Call.
//
// Served are the server-streaming methods "/sonalith.grpc.Meters/GetMetersFast" and
// "/sonalith.grpc.Meters/GetMetersSlow" and the unary "/sonalith.grpcengine.Engine/SetParams".
// Everything else is answered with UNIMPLEMENTED, and so is a method at the other one's address.
//
// Threads: members of Call and Simulator may be called from any thread, also by a listener, but for
// a Simulator's constructor and destructor. Only these two wait for anything.
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

// Where to listen, each "ADDRESS:PORT", or empty for a service that is not there. Port 0 stands for
// any free port. Equal addresses give one server with both services, if their port is not 0.
struct Addresses {
  std::string meters;
  std::string engine;
  bool together = false;  // one server in any case, at the address of the meters

  bool areOne() const { return together || (meters == engine && !meters.ends_with(":0")); }
};

// What to say where `address`, the value of `option`, can't be listened on.
std::string cantListen(std::string_view address, std::string_view option);

// Whether a client that pings often is sent away. As a rule it is not.
struct PingPolicy {
  // Pings that come too early, by gRPC's defaults for servers, and are forgiven; gRPC takes 0 for
  // all of them. Nothing: none is too early.
  std::optional<int> strikes;
};

class Simulator {
 public:
  // Listens, and accepts connections, but tells of no call before `start`. `listener` is borrowed
  // for the Simulator's life. Throws std::runtime_error, telling the address and what to do, if it
  // can't listen.
  Simulator(const Addresses& addresses, CallListener& listener, const PingPolicy& pings = {});

  // Cancels what is open, lets what is ending end, and returns when every call has been closed and
  // the ports are free. An end that its client does not take is given up after three seconds.
  ~Simulator();
  Simulator(const Simulator&) = delete;
  Simulator& operator=(const Simulator&) = delete;

  // The addresses with their actual ports.
  const Addresses& addresses() const;

  // Calls are told of from now on. To be called once, by the thread that made the Simulator.
  void start();

  // The open calls of a method, oldest first.
  std::vector<std::shared_ptr<Call>> openCalls(Method method) const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace sim
