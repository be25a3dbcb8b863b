// Sends any bytes to the live page's server, as a client would: whole, cut into pieces, twice in a
// row, without end, or broken off. Whatever comes, the server gives at most one answer, of which
// every byte is accounted for, and keeps no memory. The first byte of an input says how the others
// are sent.
#include <arpa/inet.h>
#include <malloc.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "tests/fuzz/Target.h"
#include "tools/common/HttpInterface.h"

// Only present in the sanitizers' builds, which replace the system's allocator.
extern "C" __attribute__((weak)) size_t __sanitizer_get_current_allocated_bytes();

namespace {

using fuzz::require;
using tools::HttpAnswer;
using tools::HttpRequest;
using tools::http::verb;

constexpr std::size_t bodyLimit = 1000;

// ---- The server -----------------------------------------------------------------------------

class Chatter final : public tools::HttpStream {
 public:
  std::string next() override { return "data: news\n\n"; }
  std::string quiet() override { return ":\n\n"; }
  std::string last() override { return "event: over\n\n"; }
};

HttpAnswer page(const HttpRequest& request) {
  return tools::responseOf("text/html", tools::parameterOf(request, "token").value_or("page"));
}

HttpAnswer events(const HttpRequest&) {
  return {tools::responseOf("text/event-stream", ""), std::make_unique<Chatter>()};
}

HttpAnswer change(const HttpRequest& request) {
  require(request.body().size() <= bodyLimit, "a body is within its limit");
  if (!request.body().starts_with("{")) throw std::invalid_argument("a change is an object");
  return tools::responseOf("application/json", request.body());
}

// Decides as the page does who may ask for what.
class Site {
 public:
  Site()
      : interface_({{verb::get, "/", page},
                    {verb::get, "/events", events},
                    {verb::post, "/set", change, bodyLimit}},
                   {}, {}) {
    interface_.start();
  }

  int port() const { return interface_.address().port; }

 private:
  tools::HttpInterface interface_;
};

// ---- A client -------------------------------------------------------------------------------

// Generous, so that only a server that answers nothing exceeds it.
constexpr int patience = 20'000;  // ms

// The fuzzer's own timer interrupts system calls.
template <class Call>
auto uninterrupted(Call call) {
  for (;;) {
    const auto result = call();
    if (result >= 0 || errno != EINTR) return result;
  }
}

class Client {
 public:
  explicit Client(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int on = 1;
    setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    // Closing resets the connection, or a million clients would use up the ports.
    const linger none{1, 0};
    setsockopt(socket_, SOL_SOCKET, SO_LINGER, &none, sizeof(none));
    const auto* const generic = reinterpret_cast<const sockaddr*>(&address);
    require(connect(socket_, generic, sizeof(address)) == 0, "the server accepts connections");
  }
  ~Client() { close(socket_); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  // False once the server has ended the connection.
  bool send(std::string_view bytes) {
    while (!bytes.empty()) {
      const auto count =
          uninterrupted([&] { return ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL); });
      if (count <= 0) return false;
      bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
  }

  bool hasAnswer() const {
    pollfd state{socket_, POLLIN, 0};
    return poll(&state, 1, 0) > 0;
  }

  void endSending() { shutdown(socket_, SHUT_WR); }

  // All that comes until the server ends the connection, or until a stream has begun.
  std::string answer() {
    std::string bytes;
    char chunk[4096];
    for (;;) {
      pollfd state{socket_, POLLIN, 0};
      require(uninterrupted([&] { return poll(&state, 1, patience); }) > 0,
              "the server answers, or ends the connection");
      const auto count = uninterrupted([&] { return recv(socket_, chunk, sizeof(chunk), 0); });
      if (count <= 0) return bytes;
      bytes.append(chunk, static_cast<std::size_t>(count));
      if (bytes.find("data: news\n\n") != bytes.npos) return bytes;
    }
  }

 private:
  const int socket_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
};

void sendInPieces(Client& client, std::string_view bytes, std::size_t size) {
  while (!bytes.empty() && client.send(bytes.substr(0, size))) {
    bytes.remove_prefix(std::min(size, bytes.size()));
  }
}

// More than any head may have.
constexpr std::size_t endless = 64 << 10;

void sendWithoutEnd(Client& client, std::string_view bytes) {
  for (std::size_t sent = 0; sent < endless && !client.hasAnswer(); sent += bytes.size()) {
    if (!client.send(bytes)) return;
  }
}

// ---- What holds -----------------------------------------------------------------------------

// The number in the head's Content-Length; nothing without one.
std::optional<std::size_t> lengthIn(std::string_view head) {
  constexpr std::string_view field = "\r\nContent-Length: ";
  const auto place = head.find(field);
  if (place == head.npos) return std::nullopt;
  std::size_t length = 0;
  std::from_chars(head.data() + place + field.size(), head.data() + head.size(), length);
  return length;
}

fuzz::Result judge(std::string_view answer) {
  constexpr std::string_view proceed = "HTTP/1.1 100 Continue\r\n\r\n";
  if (answer.starts_with(proceed)) answer.remove_prefix(proceed.size());
  if (answer.empty()) return fuzz::Result::Refused;
  require(answer.starts_with("HTTP/1.1 "), "an answer is HTTP");
  const auto end = answer.find("\r\n\r\n");
  require(end != answer.npos, "a head is whole");
  const auto head = answer.substr(0, end);
  const auto body = answer.substr(end + 4);
  require(head.find("\r\nConnection: close") != head.npos, "a connection has one answer");
  const auto length = lengthIn(head);
  const bool isStream = body.starts_with("data: news\n\n");
  require(length ? body.empty() || body.size() == *length : isStream || body.empty(),
          "an answer has one body, of the length that it says");
  return head.starts_with("HTTP/1.1 200 ") ? fuzz::Result::Accepted : fuzz::Result::Refused;
}

std::size_t bytesInUse() {
  if (__sanitizer_get_current_allocated_bytes != nullptr) {
    return __sanitizer_get_current_allocated_bytes();
  }
  const auto heap = mallinfo2();
  return heap.uordblks + heap.hblkhd;
}

// What the fuzzer itself keeps is much less.
constexpr std::size_t mostGrowth = 64 << 20;

void expectFlatMemory() {
  constexpr int warmUp = 1000;
  static int inputs = 0;
  static std::size_t first = 0;
  if (++inputs == warmUp) first = bytesInUse();
  if (inputs % warmUp == 0) {
    require(bytesInUse() < first + mostGrowth, "the memory stays flat");
  }
}

}  // namespace

fuzz::Result fuzz::tryInput(std::string_view input) {
  if (input.size() < 2) return Result::Skipped;
  static Site site;
  expectFlatMemory();
  const auto bytes = input.substr(2);
  const std::size_t pieces = 1 + static_cast<unsigned char>(input[1]);
  Client client(site.port());
  switch (input[0]) {
    case 'c':
      sendInPieces(client, bytes, pieces);
      break;
    case 'p':
      client.send(std::string(bytes) + std::string(bytes));
      break;
    case 'e':
      if (bytes.empty()) return Result::Skipped;
      sendWithoutEnd(client, bytes);
      break;
    case 'r':
      client.send(bytes);
      return Result::Refused;
    default:
      client.send(bytes);
      break;
  }
  client.endSending();
  return judge(client.answer());
}
