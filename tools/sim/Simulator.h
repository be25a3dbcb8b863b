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

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/sim/Call.h"

namespace sim {

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
