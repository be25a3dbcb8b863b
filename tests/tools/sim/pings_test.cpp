// What the simulator thinks of pings, over connections without gRPC: its client pings less.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <utility>

#include "tests/tools/sim/SimTest.h"

namespace {

// A connection without gRPC, for what its client does not do.
class RawConnection {
 public:
  explicit RawConnection(const std::string& target) {
    const auto colon = target.find(':');
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(std::stoi(target.substr(colon + 1))));
    inet_pton(AF_INET, target.substr(0, colon).c_str(), &address.sin_addr);
    const timeval limit{patience.count(), 0};
    setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    if (::connect(socket_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
      throw std::runtime_error("can't connect to " + target);
    }
  }
  ~RawConnection() { close(socket_); }
  RawConnection(const RawConnection&) = delete;
  RawConnection& operator=(const RawConnection&) = delete;

  void write(const std::string& bytes) {
    if (send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL) < 0) {
      throw std::runtime_error("the peer is gone");
    }
  }

  // As many bytes, or fewer if the peer has ended the connection.
  std::string read(std::size_t count) {
    std::string bytes(count, '\0');
    const auto got = recv(socket_, bytes.data(), count, MSG_WAITALL);
    bytes.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
    return bytes;
  }

 private:
  const int socket_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
};

// The type and the flags of the next HTTP/2 frame; both 0 at the end of the connection.
std::pair<int, int> nextFrame(RawConnection& connection) {
  const auto header = connection.read(9);
  if (header.size() < 9) return {0, 0};
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(header[i]); };
  connection.read(static_cast<std::size_t>(byte(0) << 16 | byte(1) << 8 | byte(2)));
  return {byte(3), byte(4)};
}

// Also without a call on the connection.
TEST(Sim, takesPingsAsOftenAsTheyCome) {
  constexpr int many = 50;
  constexpr std::pair pingAnswer(6, 1);
  constexpr int goAwayType = 7;
  SimProcess sim;
  RawConnection connection(sim.metersTarget());
  const std::string emptySettings("\0\0\0\4\0\0\0\0\0", 9);
  const std::string ping = std::string("\0\0\x8\6\0\0\0\0\0", 9) + "12345678";
  connection.write("PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n" + emptySettings);
  for (int i = 0; i < many; ++i) {
    connection.write(ping);
    std::pair<int, int> frame;
    do {
      frame = nextFrame(connection);
      ASSERT_NE(frame.first, goAwayType);
      ASSERT_NE(frame, std::pair(0, 0)) << "the connection was ended";
    } while (frame != pingAnswer);
  }
}

}  // namespace
