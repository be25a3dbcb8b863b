// The server side of both services. It announces calls to a CallListener and sends what anyone asks
// a Call to send; it decides nothing itself.
//
// It serves the server-streaming methods "/sonalith.grpc.Meters/GetMetersFast" and
// "/sonalith.grpc.Meters/GetMetersSlow" and the unary "/sonalith.grpcengine.Engine/SetParams". Each
// address also has gRPC's standard health and reflection services, whose calls are not announced.
// It answers UNIMPLEMENTED to everything else, and to calls that arrive at the other service's
// address.
//
// Threads: any thread may call `addresses` and `openCalls`, a listener included. The rest is for
// the thread that makes the Simulator. Only constructor and destructor wait.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/sim/Call.h"

namespace sim {

// Where to listen, each "ADDRESS:PORT", or empty for a service that isn't offered. Port 0 takes any
// free port. Equal addresses make one server with both services, unless their port is 0.
struct Addresses {
  std::string meters;
  std::string engine;
  bool together = false;  // one server, at the meters' address, whatever the engine's is

  bool areOne() const { return together || (meters == engine && !meters.ends_with(":0")); }
};

// The error message for an `address`, the value of `option`, that can't be listened on.
std::string cantListen(std::string_view address, std::string_view option);

// Which clients are disconnected because they ping too often.
struct PingPolicy {
  // How many early pings are forgiven; gRPC takes 0 for no limit. Which ping is early is left to
  // gRPC's defaults for servers. Without a value no client is disconnected.
  std::optional<int> strikes;
};

class Simulator {
 public:
  // Listens and accepts connections, but announces no call before `start`. Borrows `listener` for
  // its life. Throws std::runtime_error, with the address and a remedy, if it can't listen.
  Simulator(const Addresses& addresses, CallListener& listener, const PingPolicy& pings = {});

  // Cancels open calls and lets ending calls end. Returns when all calls are over and the ports are
  // free. After three seconds it gives up on calls whose clients do not read to the end.
  ~Simulator();
  Simulator(const Simulator&) = delete;
  Simulator& operator=(const Simulator&) = delete;

  // The addresses with their actual ports.
  const Addresses& addresses() const;

  // From here on, calls are announced. Call this once.
  void start();

  // The open calls of a method, oldest first.
  std::vector<std::shared_ptr<Call>> openCalls(Method method) const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace sim
