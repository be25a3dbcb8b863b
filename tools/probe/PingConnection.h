// A bare HTTP/2 connection that only sends pings. gRPC's client can't ping on command.
//
// Threads: one at a time.
// Memory: one frame of 64 KiB at most.
// Ownership: owns its socket. Borrows the waiter.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>

#include "tools/probe/Waiter.h"

namespace probe {

enum class PingAnswer {
  Answered,
  GoAway,  // the server ended the connection with a GOAWAY
  Closed,  // without one, or with something that is not HTTP/2
  Nothing,
};

// The peer has no address for a socket, as with another transport than TCP and unix sockets.
class NoAddress : public std::runtime_error {
 public:
  using runtime_error::runtime_error;
};

class PingConnection {
 public:
  // `peer`: as gRPC names an address, such as "ipv4:127.0.0.1:50005", "ipv6:%5B::1%5D:50005" or
  // "unix:/run/meters". Waits until `until` for the connection. Throws NoAddress, another
  // std::runtime_error if the connection fails, and Interrupted.
  PingConnection(const Waiter& waiter, const std::string& peer, Clock::time_point until);
  ~PingConnection();
  PingConnection(const PingConnection&) = delete;
  PingConnection& operator=(const PingConnection&) = delete;

  // Sends a ping, and waits for what comes. Throws Interrupted.
  PingAnswer ping(Clock::time_point until);

  // The server's words in its GOAWAY, such as "too_many_pings".
  const std::string& reason() const { return reason_; }

 private:
  struct Frame {
    int type;
    int flags;
    std::string payload;
  };

  bool send(const std::string& bytes) const;
  bool sendFrame(int type, int flags, const std::string& payload) const;
  // The number of bytes that came; nothing if none came in time, 0 at the end.
  std::optional<std::size_t> receive(Clock::time_point until);
  std::optional<Frame> nextFrame();

  const Waiter& waiter_;
  int socket_ = -1;
  std::string unread_;
  std::string reason_;
};

}  // namespace probe
