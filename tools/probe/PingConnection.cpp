#include "tools/probe/PingConnection.h"

#include <fmt/format.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace probe {
namespace {

constexpr int goAwayType = 7;
constexpr int pingType = 6;
constexpr int settingsType = 4;
constexpr int unknownType = 255;  // for a frame that is too long
constexpr int acknowledgement = 1;
constexpr std::string_view pingPayload = "gateway?";
constexpr std::size_t headerSize = 9;
constexpr std::size_t longestPayload = 65536;

struct Address {
  sockaddr_storage bytes{};
  socklen_t size = 0;
};

Address addressOfPath(std::string_view path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) throw NoAddress("its path is too long");
  path.copy(address.sun_path, path.size());
  Address result;
  std::memcpy(&result.bytes, &address, sizeof address);
  result.size = sizeof address;
  return result;
}

// `text` is ADDRESS:PORT, where an IPv6 address is in brackets.
Address addressOfHost(std::string text) {
  for (const auto& [code, character] : {std::pair("%5B", "["), std::pair("%5D", "]")}) {
    if (const auto at = text.find(code); at != text.npos) text.replace(at, 3, character);
  }
  const auto colon = text.rfind(':');
  if (colon == text.npos) throw NoAddress(fmt::format("{} has no port", text));
  std::string host = text.substr(0, colon);
  if (host.starts_with('[') && host.ends_with(']')) host = host.substr(1, host.size() - 2);
  addrinfo hints{};
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(host.c_str(), text.substr(colon + 1).c_str(), &hints, &found) != 0) {
    throw NoAddress(fmt::format("{} is not an address", text));
  }
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, freeaddrinfo);
  Address result;
  std::memcpy(&result.bytes, found->ai_addr, found->ai_addrlen);
  result.size = found->ai_addrlen;
  return result;
}

Address addressOf(const std::string& peer) {
  const auto colon = peer.find(':');
  const auto scheme = peer.substr(0, colon);
  if (scheme == "unix") return addressOfPath(std::string_view(peer).substr(colon + 1));
  if (scheme == "ipv4" || scheme == "ipv6") return addressOfHost(peer.substr(colon + 1));
  throw NoAddress(fmt::format("can't connect to the address {}", peer));
}

bool waitWritable(const Waiter& waiter, int socket, Clock::time_point until) {
  // In short steps, because the waiter waits for input only.
  constexpr int step = 50;
  while (Clock::now() < until) {
    pollfd state{socket, POLLOUT, 0};
    if (poll(&state, 1, step) > 0) return (state.revents & (POLLERR | POLLHUP)) == 0;
    waiter.wait(-1, Clock::now());
  }
  return false;
}

}  // namespace

PingConnection::PingConnection(const Waiter& waiter, const std::string& peer,
                               Clock::time_point until)
    : waiter_(waiter) {
  const Address address = addressOf(peer);
  socket_ = socket(address.bytes.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  const auto* const bare = reinterpret_cast<const sockaddr*>(&address.bytes);
  const bool isConnected =
      socket_ >= 0 && (::connect(socket_, bare, address.size) == 0 ||
                       (errno == EINPROGRESS && waitWritable(waiter, socket_, until)));
  if (isConnected && send("PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n") && sendFrame(settingsType, 0, "")) {
    return;
  }
  if (socket_ >= 0) close(socket_);
  throw std::runtime_error("another connection for pings failed");
}

PingConnection::~PingConnection() {
  close(socket_);
}

bool PingConnection::send(const std::string& bytes) const {
  return ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
         static_cast<ssize_t>(bytes.size());
}

bool PingConnection::sendFrame(int type, int flags, const std::string& payload) const {
  std::string frame(headerSize, '\0');
  frame[2] = static_cast<char>(payload.size());
  frame[3] = static_cast<char>(type);
  frame[4] = static_cast<char>(flags);
  return send(frame + payload);
}

std::optional<std::size_t> PingConnection::receive(Clock::time_point until) {
  std::array<char, 4096> chunk;
  for (;;) {
    const auto count = recv(socket_, chunk.data(), chunk.size(), 0);
    if (count >= 0) {
      unread_.append(chunk.data(), static_cast<std::size_t>(count));
      return static_cast<std::size_t>(count);
    }
    if (errno != EAGAIN && errno != EINTR) return 0;
    if (Clock::now() >= until) return std::nullopt;
    waiter_.wait(socket_, until);
  }
}

std::optional<PingConnection::Frame> PingConnection::nextFrame() {
  if (unread_.size() < headerSize) return std::nullopt;
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(unread_[i]); };
  const auto size = static_cast<std::size_t>(byte(0) << 16 | byte(1) << 8 | byte(2));
  if (size > longestPayload) return Frame{unknownType, 0, ""};
  if (unread_.size() < headerSize + size) return std::nullopt;
  Frame frame{byte(3), byte(4), unread_.substr(headerSize, size)};
  unread_.erase(0, headerSize + size);
  return frame;
}

PingAnswer PingConnection::ping(Clock::time_point until) {
  if (!sendFrame(pingType, 0, std::string(pingPayload))) return PingAnswer::Closed;
  for (;;) {
    while (const auto frame = nextFrame()) {
      if (frame->type == unknownType) return PingAnswer::Closed;
      const bool isAnswer = (frame->flags & acknowledgement) != 0;
      if (frame->type == pingType && isAnswer) return PingAnswer::Answered;
      if (frame->type == goAwayType) {
        constexpr std::size_t numbers = 8;  // the last stream and the error code
        reason_ = frame->payload.substr(std::min(numbers, frame->payload.size()));
        return PingAnswer::GoAway;
      }
      if (frame->type == settingsType && !isAnswer) sendFrame(settingsType, acknowledgement, "");
      const bool isPing = frame->type == pingType && frame->payload.size() == pingPayload.size();
      if (isPing) sendFrame(pingType, acknowledgement, frame->payload);
    }
    const auto count = receive(until);
    if (count && *count == 0) return PingAnswer::Closed;
    // A server that sends without end must not keep the probe busy.
    if (!count || Clock::now() >= until) return PingAnswer::Nothing;
  }
}

}  // namespace probe
