// The server of a playing run, and the relays that its faults need in front of it.
//
// Threads: constructor and destructor run while the loop does not. The relays are for the loop's
// thread.
// Ownership: it owns server and relays. It borrows loop and listener for its life.
#pragma once

#include <boost/asio/io_context.hpp>
#include <memory>
#include <string>

#include "tools/sim/Relay.h"
#include "tools/sim/Settings.h"
#include "tools/sim/Simulator.h"

namespace sim {

class Services {
 public:
  // Listens at the addresses of `settings`. Throws std::runtime_error if it can't.
  Services(boost::asio::io_context& loop, const Settings& settings, CallListener& listener);

  Simulator& simulator() { return simulator_; }
  // Where clients connect to.
  const Addresses& addresses() const { return addresses_; }
  // Null if there is none.
  Relay* meters() { return meters_.get(); }
  Relay* engine() { return addresses_.areOne() ? meters_.get() : engine_.get(); }

 private:
  Simulator simulator_;
  Addresses addresses_;
  std::unique_ptr<Relay> meters_;
  std::unique_ptr<Relay> engine_;
};

}  // namespace sim
