// A relay of connections in front of a server, so that the connections themselves can fail as
// networks and machines do: closed, broken off, refused, frozen or slow.
//
// Threads: the one that runs the loop, but for the constructor, and the destructor, before which
// the loop has been stopped.
// Ownership: it owns its connections, and ends them when it goes. The loop is borrowed.
#pragma once

#include <asio/io_context.hpp>
#include <memory>
#include <string>

namespace sim {

class Relay {
 public:
  // Listens at `address`, "ADDRESS:PORT" with port 0 for any free one, and connects whoever comes
  // to `server`, a port of 127.0.0.1. Throws std::runtime_error, naming the address and `option`,
  // if it can't listen.
  Relay(asio::io_context& loop, const std::string& address, const std::string& option,
        unsigned short server);
  ~Relay();
  Relay(const Relay&) = delete;
  Relay& operator=(const Relay&) = delete;

  // With its actual port.
  const std::string& address() const;

  // Ends all connections: in order, or broken off.
  void closeAll();
  void resetAll();

  // Whether it listens. Connections that are there stay.
  void refuse(bool refuses);

  // Whether nothing passes, either way. Who connects meanwhile is accepted.
  void freeze(bool freezes);

  // How many bytes a second pass to each client; 0 for no limit.
  void drip(double bytesPerSecond);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace sim
