#include "tools/sim/Relay.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
#include <chrono>
#include <cmath>
#include <functional>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "tools/sim/HalfMessage.h"
#include "tools/sim/Simulator.h"

namespace sim {
namespace {

namespace asio = boost::asio;
using Clock = std::chrono::steady_clock;
using asio::ip::tcp;
using boost::system::error_code;

// Errors don't matter: a connection that is gone already needs no closing.
void closeQuietly(tcp::socket& socket) {
  error_code ignored;
  socket.close(ignored);
}

// As gRPC does. Otherwise a small message could wait for the acknowledgement of the one before.
void sendAtOnce(tcp::socket& socket) {
  error_code ignored;
  socket.set_option(tcp::no_delay(true), ignored);
}

tcp::endpoint endpointOf(asio::io_context& loop, const std::string& address) {
  const auto colon = address.rfind(':');
  auto host = address.substr(0, colon);
  if (host.starts_with('[') && host.ends_with(']')) host = host.substr(1, host.size() - 2);
  return *tcp::resolver(loop).resolve(host, address.substr(colon + 1)).begin();
}

}  // namespace

struct Relay::State {
  // A client's connection, and the matching one to the server.
  class Connection;

  State(asio::io_context& loop, const std::string& wanted, unsigned short serverPort)
      : acceptor(loop, endpointOf(loop, wanted)),
        retry(loop),
        place(acceptor.local_endpoint()),
        address(fmt::format("{}:{}", wanted.substr(0, wanted.rfind(':')), place.port())),
        server(asio::ip::address_v4::loopback(), serverPort) {}

  void accept();
  // Tries again after a pause: a process that is out of descriptors may get some back.
  void acceptLater();
  void forEach(const std::function<void(Connection&)>& use);

  tcp::acceptor acceptor;
  asio::steady_timer retry;  // of a failed accept
  const tcp::endpoint place;
  const std::string address;
  const tcp::endpoint server;
  std::vector<std::shared_ptr<Connection>> connections;  // some may be closed
  bool frozen = false;
  double limit = 0;       // bytes per second to each client; 0 for none
  std::size_t slice = 0;  // bytes of a packet to each client; 0 for any size
};

class Relay::State::Connection : public std::enable_shared_from_this<Connection> {
 public:
  Connection(const State& relay, tcp::socket client)
      : relay_(relay), client_(std::move(client)), server_(client_.get_executor()) {}

  void start();
  bool isClosed() const { return !client_.is_open(); }
  void close();
  void reset();
  // Passes on what a freeze has held up.
  void goOn();
  // Ends a pause that a limit demands.
  void hurry();

 private:
  // One direction. It reads, writes everything it has read, and reads again.
  struct Way {
    tcp::socket& from;
    tcp::socket& to;
    asio::steady_timer timer;
    std::array<char, 16384> buffer{};
    std::string waiting{};     // read, and not written yet
    bool ended = false;        // there is nothing more to read
    bool heldUp = false;       // by a freeze
    Clock::time_point next{};  // when a limit lets more pass

    Way(tcp::socket& from_, tcp::socket& to_) : from(from_), to(to_), timer(to_.get_executor()) {}
  };

  void read(Way& way);
  void received(Way& way, error_code error, std::size_t size);
  // Writes as much of the waiting data as may pass now.
  void pass(Way& way);
  void write(Way& way, std::size_t size);
  void finish(Way& way);
  std::size_t mayPass(const Way& way) const;
  // Waits as long as the limit demands after this many bytes, then passes on more.
  void pace(Way& way, std::size_t written);
  bool isLimited(const Way& way) const { return &way == &toClient_ && relay_.limit > 0; }

  const State& relay_;
  tcp::socket client_;
  tcp::socket server_;
  Way toServer_{client_, server_};
  Way toClient_{server_, client_};
  HalfMessage half_;
};

void Relay::State::accept() {
  acceptor.async_accept([this](error_code error, tcp::socket client) {
    if (error == asio::error::operation_aborted) return;
    if (error) return acceptLater();
    const auto connection = std::make_shared<Connection>(*this, std::move(client));
    std::erase_if(connections, [](const auto& known) { return known->isClosed(); });
    connections.push_back(connection);
    connection->start();
    accept();
  });
}

void Relay::State::acceptLater() {
  constexpr auto pause = std::chrono::milliseconds(100);
  retry.expires_after(pause);
  retry.async_wait([this](error_code error) {
    if (!error) accept();
  });
}

void Relay::State::forEach(const std::function<void(Connection&)>& use) {
  for (const auto& connection : connections) use(*connection);
}

void Relay::State::Connection::start() {
  server_.async_connect(relay_.server, [this, self = shared_from_this()](error_code error) {
    if (error) return close();
    sendAtOnce(client_);
    sendAtOnce(server_);
    read(toServer_);
    read(toClient_);
  });
}

void Relay::State::Connection::close() {
  closeQuietly(client_);
  closeQuietly(server_);
  toClient_.timer.cancel();
}

// With a linger time of 0, closing a socket sends RST.
void Relay::State::Connection::reset() {
  error_code ignored;
  client_.set_option(asio::socket_base::linger(true, 0), ignored);
  close();
}

void Relay::State::Connection::goOn() {
  for (Way* const way : {&toServer_, &toClient_}) {
    if (std::exchange(way->heldUp, false)) pass(*way);
  }
}

void Relay::State::Connection::read(Way& way) {
  way.from.async_read_some(asio::buffer(way.buffer),
                           [this, self = shared_from_this(), &way](
                               error_code error, std::size_t size) { received(way, error, size); });
}

void Relay::State::Connection::received(Way& way, error_code error, std::size_t size) {
  if (error && error != asio::error::eof) return close();
  way.ended = error == asio::error::eof;
  const std::string_view bytes(way.buffer.data(), size);
  way.waiting += &way == &toClient_ ? half_.pass(bytes) : std::string(bytes);
  pass(way);
}

void Relay::State::Connection::pass(Way& way) {
  if (relay_.frozen) {
    way.heldUp = true;
  } else if (!way.waiting.empty()) {
    write(way, mayPass(way));
  } else if (way.ended) {
    finish(way);
  } else {
    read(way);
  }
}

// A slow client gets a tenth of a second's bytes at a time.
std::size_t Relay::State::Connection::mayPass(const Way& way) const {
  std::size_t most = way.waiting.size();
  if (&way == &toClient_ && relay_.slice > 0) most = std::min(most, relay_.slice);
  if (!isLimited(way)) return most;
  const auto piece = static_cast<std::size_t>(std::max(1.0, std::floor(relay_.limit / 10)));
  return std::min(piece, most);
}

void Relay::State::Connection::write(Way& way, std::size_t size) {
  asio::async_write(way.to, asio::buffer(way.waiting.data(), size),
                    [this, self = shared_from_this(), &way, wasLimited = isLimited(way)](
                        error_code error, std::size_t written) {
                      if (error) return close();
                      way.waiting.erase(0, written);
                      if (wasLimited && isLimited(way)) return pace(way, written);
                      pass(way);
                    });
}

void Relay::State::Connection::hurry() {
  toClient_.next = {};
  toClient_.timer.cancel();
}

// Timers fire late. A fast connection may make up for that, but not for the time that it was idle.
void Relay::State::Connection::pace(Way& way, std::size_t written) {
  constexpr auto mostMadeUp = std::chrono::milliseconds(10);
  const std::chrono::duration<double> pause(static_cast<double>(written) / relay_.limit);
  way.next =
      std::max(way.next, Clock::now() - mostMadeUp) + std::chrono::ceil<Clock::duration>(pause);
  if (way.next <= Clock::now()) return pass(way);
  way.timer.expires_at(way.next);
  way.timer.async_wait([this, self = shared_from_this(), &way](error_code) {
    if (way.to.is_open()) pass(way);
  });
}

// The other direction may still be in use.
void Relay::State::Connection::finish(Way& way) {
  error_code ignored;
  way.to.shutdown(tcp::socket::shutdown_send, ignored);
  if (toServer_.ended && toClient_.ended) close();
}

Relay::Relay(asio::io_context& loop, const std::string& address, const std::string& option,
             unsigned short server) try
    : state_(std::make_unique<State>(loop, address, server)) {
  state_->accept();
} catch (const boost::system::system_error&) {
  throw std::runtime_error(cantListen(address, option));
}

Relay::~Relay() {
  closeAll();
}

const std::string& Relay::address() const {
  return state_->address;
}

void Relay::closeAll() {
  state_->forEach([](auto& connection) { connection.close(); });
}

void Relay::resetAll() {
  state_->forEach([](auto& connection) { connection.reset(); });
}

// A socket that is bound but does not listen refuses clients and keeps the port.
void Relay::refuse(bool refuses) {
  auto& acceptor = state_->acceptor;
  if (!refuses) {
    acceptor.listen();
    state_->accept();
    return;
  }
  state_->retry.cancel();
  acceptor.close();
  acceptor.open(state_->place.protocol());
  acceptor.set_option(asio::socket_base::reuse_address(true));
  acceptor.bind(state_->place);
}

void Relay::freeze(bool freezes) {
  state_->frozen = freezes;
  if (!freezes) state_->forEach([](auto& connection) { connection.goOn(); });
}

// A large piece that is being written counts for no limit, and nothing waits for the old one.
void Relay::limit(double bytesPerSecond) {
  state_->limit = bytesPerSecond;
  state_->forEach([](auto& connection) { connection.hurry(); });
}

void Relay::slice(std::size_t bytes) {
  state_->slice = bytes;
}

}  // namespace sim
