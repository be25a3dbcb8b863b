// A meter server that is faster than any client. It implements only the part of HTTP/2 that a
// stream of messages needs, and writes as many messages at once as the client's windows allow. Only
// such a server shows how much a client can read: a gRPC server spends longer on a small message
// than its reader does.
//
//   bench-feeder --values FILE
//
// FILE is the same as for bench-server. The feeder sends messages on every stream that is opened,
// until the stream is reset. It prints "port NUMBER", and ends when its input does.
#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>

#include "bench/InputEnd.h"
#include "bench/Messages.h"

namespace {

using bench::Messages;

// Frames of HTTP/2, by their numbers on the wire.
enum class Frame : std::uint8_t {
  Data = 0,
  Headers = 1,
  ResetStream = 3,
  Settings = 4,
  Ping = 6,
  WindowUpdate = 8
};
constexpr std::uint8_t acknowledges = 0x1;
constexpr std::uint8_t endHeaders = 0x4;
constexpr std::uint16_t initialWindowSetting = 4;
constexpr std::size_t frameHead = 9;
constexpr std::size_t frameLimit = 16384;  // every peer accepts this
constexpr std::size_t messageHead = 5;
constexpr std::size_t prefaceSize = 24;
constexpr std::size_t writtenAtOnce = 256 * 1024;

// ":status: 200" and "content-type: application/grpc", with the indexes of HPACK's static table.
constexpr std::string_view responseHeaders =
    "\x88\x0f\x10\x10"
    "application/grpc";

std::uint32_t bigEndian(std::string_view bytes) {
  std::uint32_t number = 0;
  for (const char byte : bytes) number = number << 8 | static_cast<std::uint8_t>(byte);
  return number;
}

void putBigEndian(char* to, std::uint32_t number, int bytes) {
  for (int i = bytes - 1; i >= 0; --i, number >>= 8) to[i] = static_cast<char>(number);
}

struct Stream {
  std::int64_t window;
  std::uint64_t sequence = 0;
  std::string message;   // the one that is being sent, with its head
  std::size_t sent = 0;  // bytes of the message
};

// Serves one connection, on a thread of its own.
class Feeder {
 public:
  Feeder(int connection, const Messages& messages) : socket_(connection), messages_(messages) {}
  ~Feeder() { close(socket_); }
  Feeder(const Feeder&) = delete;
  Feeder& operator=(const Feeder&) = delete;

  // Returns when the peer closes the connection.
  void run() {
    put(Frame::Settings, 0, 0, {});
    bool open = true;
    while (open) {
      feed();
      pollfd ready{socket_, static_cast<short>(out_.empty() ? POLLIN : POLLIN | POLLOUT), 0};
      poll(&ready, 1, -1);
      if ((ready.revents & POLLOUT) != 0) open = flush();
      if (open && (ready.revents & (POLLIN | POLLHUP | POLLERR)) != 0) open = take();
    }
  }

 private:
  char* putHead(Frame type, std::uint8_t flags, std::uint32_t stream, std::size_t size) {
    const std::size_t at = out_.size();
    out_.resize(at + frameHead + size);
    char* const head = out_.data() + at;
    putBigEndian(head, static_cast<std::uint32_t>(size), 3);
    head[3] = static_cast<char>(type);
    head[4] = static_cast<char>(flags);
    putBigEndian(head + 5, stream, 4);
    return head + frameHead;
  }

  void put(Frame type, std::uint8_t flags, std::uint32_t stream, std::string_view payload) {
    std::copy(payload.begin(), payload.end(), putHead(type, flags, stream, payload.size()));
  }

  // Queues as many messages as the windows allow.
  void feed() {
    for (auto& [id, stream] : streams_) {
      while (out_.size() < writtenAtOnce && window_ > 0 && stream.window > 0) feed(id, stream);
    }
  }

  void feed(std::uint32_t id, Stream& stream) {
    if (stream.sent == stream.message.size()) begin(stream);
    const auto size = std::min({stream.message.size() - stream.sent, frameLimit,
                                static_cast<std::size_t>(std::min(window_, stream.window))});
    put(Frame::Data, 0, id, std::string_view(stream.message).substr(stream.sent, size));
    stream.sent += size;
    stream.window -= static_cast<std::int64_t>(size);
    window_ -= static_cast<std::int64_t>(size);
  }

  void begin(Stream& stream) {
    stream.message.resize(messageHead + messages_.size());
    stream.message[0] = 0;  // not compressed
    putBigEndian(stream.message.data() + 1, static_cast<std::uint32_t>(messages_.size()), 4);
    messages_.write(stream.message.data() + messageHead, ++stream.sequence);
    stream.sent = 0;
  }

  bool flush() {
    const ssize_t size = send(socket_, out_.data(), out_.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (size > 0) out_.erase(0, static_cast<std::size_t>(size));
    return size > 0 || errno == EAGAIN;
  }

  // Reads and handles frames of the client. False if the connection is closed.
  bool take() {
    char bytes[65536];
    const ssize_t size = recv(socket_, bytes, sizeof bytes, MSG_DONTWAIT);
    if (size <= 0) return size < 0 && errno == EAGAIN;
    in_.append(bytes, static_cast<std::size_t>(size));
    if (!greeted_ && in_.size() >= prefaceSize) {
      in_.erase(0, prefaceSize);
      greeted_ = true;
    }
    while (greeted_ && in_.size() >= frameHead) {
      const std::size_t whole = frameHead + bigEndian(std::string_view(in_).substr(0, 3));
      if (in_.size() < whole) break;
      takeFrame(std::string_view(in_).substr(0, whole));
      in_.erase(0, whole);
    }
    return true;
  }

  void takeFrame(std::string_view frame) {
    const auto type = static_cast<Frame>(frame[3]);
    const bool isAnswer = (frame[4] & acknowledges) != 0;
    const std::uint32_t id = bigEndian(frame.substr(5, 4));
    const std::string_view payload = frame.substr(frameHead);
    if (type == Frame::Settings && !isAnswer) {
      takeSettings(payload);
      put(Frame::Settings, acknowledges, 0, {});
    } else if (type == Frame::Ping && !isAnswer) {
      put(Frame::Ping, acknowledges, 0, payload);
    } else if (type == Frame::WindowUpdate) {
      widen(id, bigEndian(payload));
    } else if (type == Frame::Headers) {
      put(Frame::Headers, endHeaders, id, responseHeaders);
      streams_[id].window = initialWindow_;
    } else if (type == Frame::ResetStream) {
      streams_.erase(id);
    }
  }

  void takeSettings(std::string_view payload) {
    for (; payload.size() >= 6; payload.remove_prefix(6)) {
      if (bigEndian(payload.substr(0, 2)) != initialWindowSetting) continue;
      const std::int64_t wanted = bigEndian(payload.substr(2, 4));
      for (auto& [id, stream] : streams_) stream.window += wanted - initialWindow_;
      initialWindow_ = wanted;
    }
  }

  void widen(std::uint32_t id, std::uint32_t size) {
    if (id == 0) {
      window_ += size;
    } else if (const auto stream = streams_.find(id); stream != streams_.end()) {
      stream->second.window += size;
    }
  }

  const int socket_;
  const Messages& messages_;
  std::string in_;
  std::string out_;
  bool greeted_ = false;
  std::int64_t initialWindow_ = 65535;
  std::int64_t window_ = 65535;
  std::map<std::uint32_t, Stream> streams_;
};

int listenAnywhere(std::uint16_t& port) {
  const int listener = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  socklen_t size = sizeof address;
  auto* const any = reinterpret_cast<sockaddr*>(&address);
  if (bind(listener, any, size) != 0 || getsockname(listener, any, &size) != 0 ||
      listen(listener, 16) != 0) {
    throw std::runtime_error("can't listen");
  }
  port = ntohs(address.sin_port);
  return listener;
}

[[noreturn]] void acceptAll(int listener, const Messages& messages) {
  for (;;) {
    const int connection = accept(listener, nullptr, nullptr);
    const int on = 1;
    setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    std::thread([connection, &messages] { Feeder(connection, messages).run(); }).detach();
  }
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Feeds meter streams as fast as a client can read them.");
  std::string values;
  app.add_option("--values", values)->required();
  CLI11_PARSE(app, argc, argv);
  const Messages messages(values);
  std::uint16_t port = 0;
  const int listener = listenAnywhere(port);
  std::printf("port %d\n", port);
  std::fflush(stdout);
  std::thread(bench::endWithInput).detach();
  acceptAll(listener, messages);
}
