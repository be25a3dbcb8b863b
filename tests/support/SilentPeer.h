// Peers that never answer: a port that accepts connections but sends nothing, and one that does not
// even accept them. One thread at a time.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

class SilentPeer {
 public:
  enum class Kind {
    Mute,       // connections succeed, and nothing ever comes over them
    BlackHole,  // connections neither succeed nor fail: the kernel's queue for them is full
  };

  explicit SilentPeer(Kind kind) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* const bare = reinterpret_cast<sockaddr*>(&address);
    socklen_t size = sizeof(address);
    const int backlog = kind == Kind::Mute ? 64 : 0;
    if (bind(listener_, bare, size) != 0 || listen(listener_, backlog) != 0 ||
        getsockname(listener_, bare, &size) != 0) {
      throw std::runtime_error("can't listen on a port for the silent peer");
    }
    target_ = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    if (kind == Kind::BlackHole) fillQueue(address);
  }
  ~SilentPeer() {
    for (const int each : waiting_) close(each);
    close(listener_);
  }
  SilentPeer(const SilentPeer&) = delete;
  SilentPeer& operator=(const SilentPeer&) = delete;

  const std::string& target() const { return target_; }

 private:
  // Connects until a connection no longer succeeds.
  void fillQueue(const sockaddr_in& address) {
    constexpr int most = 8;
    constexpr int patienceMs = 300;  // over loopback a connection succeeds at once
    for (int i = 0; i < most; ++i) {
      waiting_.push_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
      const int each = waiting_.back();
      const auto* const bare = reinterpret_cast<const sockaddr*>(&address);
      if (connect(each, bare, sizeof(address)) != 0 && errno != EINPROGRESS) break;
      pollfd made{each, POLLOUT, 0};
      if (poll(&made, 1, patienceMs) == 0) return;
    }
    throw std::runtime_error("connections still succeed");
  }

  const int listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  std::vector<int> waiting_;
  std::string target_;
};
