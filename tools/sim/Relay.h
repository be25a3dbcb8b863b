// A relay in front of a server, so that connections can fail as they do in networks: closed, reset,
// refused, frozen or slow.
//
// Threads: the one that runs the loop. Constructor and destructor run while the loop does not.
// Ownership: it owns its connections, and closes them when it is destroyed. It borrows the loop.
#pragma once

#include <boost/asio/io_context.hpp>
#include <cstddef>
#include <memory>
#include <string>

namespace sim {

class Relay {
 public:
  // Listens at `address`, "ADDRESS:PORT" with port 0 for any free port, and connects each client to
  // `server`, a port of 127.0.0.1. Throws std::runtime_error, with the address and `option`, if it
  // can't listen.
  Relay(boost::asio::io_context& loop, const std::string& address, const std::string& option,
        unsigned short server);
  ~Relay();
  Relay(const Relay&) = delete;
  Relay& operator=(const Relay&) = delete;

  // The address with its actual port.
  const std::string& address() const;

  // Ends all connections: in order (FIN), or with a reset (RST).
  void closeAll();
  void resetAll();

  // Whether to refuse new connections. Existing ones stay.
  void refuse(bool refuses);

  // Whether to hold up all data, in both directions. New connections are still accepted.
  void freeze(bool freezes);

  // Limits the bytes per second that reach each client, at least 1; 0 for no limit.
  void limit(double bytesPerSecond);

  // Cuts what reaches each client into packets of at most this many bytes; 0 for any size.
  void slice(std::size_t bytes);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace sim
