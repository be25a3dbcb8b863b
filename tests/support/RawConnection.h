// A TCP connection without gRPC, for what gRPC's client does not do. One thread at a time.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "tests/support/SimProcess.h"

class RawConnection {
 public:
  // Connects from the IP address `from`; empty for any.
  explicit RawConnection(const std::string& target, const std::string& from = {}) {
    if (!from.empty()) bindTo(from);
    const auto colon = target.find(':');
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(std::stoi(target.substr(colon + 1))));
    inet_pton(AF_INET, target.substr(0, colon).c_str(), &address.sin_addr);
    const timeval limit{patience.count(), 0};
    setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    if (::connect(socket_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
      close(socket_);
      throw std::runtime_error("can't connect to " + target);
    }
  }
  ~RawConnection() { close(socket_); }
  RawConnection(const RawConnection&) = delete;
  RawConnection& operator=(const RawConnection&) = delete;

  void write(const std::string& bytes) {
    if (send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL) < 0) {
      throw std::runtime_error("the peer has closed the connection");
    }
  }

  // Reads `count` bytes, or fewer if the peer has ended the connection.
  std::string read(std::size_t count) {
    std::string bytes(count, '\0');
    const auto got = recv(socket_, bytes.data(), count, MSG_WAITALL);
    error_ = got < 0 ? errno : 0;
    bytes.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
    return bytes;
  }

  std::string readToTheEnd() {
    std::string bytes;
    for (std::string next = read(1); !next.empty(); next = read(1)) bytes += next;
    return bytes;
  }

  // Tells the peer that nothing more will be written.
  void endWriting() { shutdown(socket_, SHUT_WR); }

  // Whether bytes have come, or the peer has ended the connection. Waits for that until `limit`.
  bool hasInput(std::chrono::milliseconds limit) {
    pollfd state{socket_, POLLIN, 0};
    return poll(&state, 1, static_cast<int>(limit.count())) > 0;
  }

  // Whether the peer has reset the connection. Waits for that until `limit`.
  bool isResetWithin(std::chrono::milliseconds limit) {
    pollfd state{socket_, 0, 0};
    return poll(&state, 1, static_cast<int>(limit.count())) > 0 && (state.revents & POLLERR) != 0;
  }

  // The error of the last read; 0 if the peer closed the connection in order.
  int lastError() const { return error_; }

 private:
  void bindTo(const std::string& from) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    inet_pton(AF_INET, from.c_str(), &address.sin_addr);
    if (bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) return;
    throw std::runtime_error("can't connect from " + from);
  }

  const int socket_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int error_ = 0;
};
