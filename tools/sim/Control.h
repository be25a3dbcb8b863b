// The control interface of a playing simulator, for tests in any language:
//
//   GET  /api/status  addresses, open streams, and the number of the latest event
//   GET  /api/events  what has happened, as Journal keeps it: ?after=NUMBER, &event=, &stream= and
//                     &key= to choose, &wait=SECONDS for the first that fits
//   POST /api/send    sends a message to each open stream of a kind
//   POST /api/end     ends each open stream of a kind, with a status
//   POST /api/fault   makes a fault happen at once, or ends faults
//   POST /api/reset   ends faults, drops what is still to be sent, and empties the journal
//
// Only programs on this machine can use it. docs/sim-control.md and docs/sim-control.openapi.json
// describe it for users.
//
// Threads: made and destroyed by one thread; serves on a thread of its own, and carries out faults
// on the loop's.
// Ownership: it borrows everything; the loop must run for as long as it lives.
#pragma once

#include <boost/asio/io_context.hpp>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tools/common/HttpAddress.h"
#include "tools/sim/Delivery.h"
#include "tools/sim/Journal.h"
#include "tools/sim/Saboteur.h"
#include "tools/sim/Simulator.h"

namespace sim {

// Reads the address of a control interface. Throws std::invalid_argument, with a remedy, for one
// that other machines can reach.
tools::HttpAddress parseControlAddress(std::string_view text);

// What the interface controls.
struct Controlled {
  boost::asio::io_context& loop;
  const Simulator& simulator;
  const Addresses& addresses;  // where clients connect to
  Saboteur& saboteur;
  Journal& journal;
  Delivery& delivery;
};

class Control {
 public:
  // Serves when this returns. Throws std::runtime_error, with a remedy, if it can't listen there.
  Control(const tools::HttpAddress& address, const Controlled& controlled);
  ~Control();
  Control(const Control&) = delete;
  Control& operator=(const Control&) = delete;

  // "127.0.0.1:8081", with the actual port.
  std::string address() const;

  // Each route as "GET /api/status", for a comparison with docs/sim-control.openapi.json.
  std::vector<std::string> routes() const;

 private:
  class Routes;

  std::unique_ptr<Routes> routes_;
};

}  // namespace sim
