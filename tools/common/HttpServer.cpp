#include "tools/common/HttpServer.h"

#include <fmt/format.h>

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/write.hpp>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <limits>
#include <sstream>
#include <thread>
#include <utility>
#include <vector>

namespace tools {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
using asio::ip::tcp;
using boost::system::error_code;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds writeLimit(5);  // without a byte being taken
constexpr std::chrono::seconds quietLimit(2);  // without a piece of a stream
constexpr std::chrono::seconds endLimit(2);    // for the client to close after its answer

std::string percentDecoded(std::string_view text) {
  std::string decoded;
  for (std::size_t i = 0; i < text.size(); ++i) {
    unsigned char byte = 0;
    const char* const digits = text.data() + i + 1;
    const bool isCode = text[i] == '%' && i + 2 < text.size() &&
                        std::from_chars(digits, digits + 2, byte, 16).ptr == digits + 2;
    decoded += isCode ? static_cast<char>(byte) : text[i];
    if (isCode) i += 2;
  }
  return decoded;
}

// The target before and after its "?".
std::pair<std::string, std::string> partsOf(const HttpHead& request) {
  const std::string target(request.target());
  const std::size_t mark = target.find('?');
  if (mark == target.npos) return {target, ""};
  return {target.substr(0, mark), target.substr(mark + 1)};
}

// Status line and header.
std::string headText(HttpResponse& response) {
  response.version(11);
  response.set(http::field::connection, "close");
  std::ostringstream text;
  text << response.base();
  return text.str();
}

}  // namespace

std::string pathOf(const HttpHead& request) {
  return percentDecoded(partsOf(request).first);
}

std::optional<std::string> parameterOf(const HttpHead& request, std::string_view name) {
  std::istringstream query(partsOf(request).second);
  for (std::string pair; std::getline(query, pair, '&');) {
    const std::size_t end = pair.find('=');
    if (percentDecoded(pair.substr(0, end)) != name) continue;
    if (end == pair.npos) return "";
    std::string value = pair.substr(end + 1);
    std::replace(value.begin(), value.end(), '+', ' ');
    return percentDecoded(value);
  }
  return std::nullopt;
}

// ---- Connections ----------------------------------------------------------------------------

struct HttpServer::State {
  State(HttpHandler& handler_, const HttpLimits& limits_) : handler(handler_), limits(limits_) {}

  void listen(const std::string& address, int port);
  error_code listenAt(const tcp::endpoint& endpoint);
  void accept();
  void acceptLater();
  void serve(tcp::socket socket);
  std::optional<HttpRefusal> crowdingOf(const asio::ip::address& address) const;
  void addStream(Connection& fresh);
  void limitEnding();

  HttpHandler& handler;
  const HttpLimits limits;
  // Oldest first. What a connection waits for keeps it alive, so that the loop owns all of them.
  std::vector<Connection*> connections;
  std::vector<Connection*> streams;  // connections with an open stream
  std::vector<Connection*> waiting;  // connections whose answer comes later

  asio::io_context loop{1};
  tcp::acceptor acceptor{loop};
  asio::steady_timer retry{loop};  // of an accept that failed
  std::thread thread;
};

// Reads the request, writes the answer once there is one, and waits for the client to close; with a
// stream, it writes until then.
class HttpServer::Connection : public std::enable_shared_from_this<Connection> {
 public:
  Connection(State& server, tcp::socket socket, const asio::ip::address& address);
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  const asio::ip::address& address() const { return address_; }
  // Whether it only waits for the client to close. Such a connection is no longer counted.
  bool isEnding() const { return isEnding_; }
  // Since when the reader of its stream has had something to take; the far future if it is up to
  // date.
  Clock::time_point behindSince() const { return behindSince_; }

  void readRequest();
  // Answers without reading the request.
  void refuse(const HttpRefusal& refusal);
  // Sends the stream's next piece, if there is one.
  void wake();
  // Answers a client that waits, if there is an answer now.
  void look();
  // Sends the stream's last piece if the client can take it at once.
  void finish();
  void close();

 private:
  void limitRequestTime();
  void readBody();
  void continueBody();
  void failReading(const error_code& error);
  std::optional<HttpRefusal> refusalOf(const error_code& error) const;
  void limitAnswerTime();
  template <class Action>
  auto guarded(Action action) -> std::optional<decltype(action())>;
  void answer();
  void await(HttpWait wait);
  void stopWaiting();
  void send(HttpAnswer answer);
  void write();
  void wrote();
  void sendNext();
  void awaitQuiet();
  // Reads whatever comes until the client closes.
  void discard();

  State& server_;
  const asio::ip::address address_;
  beast::tcp_stream socket_;
  // Room for a whole head: also what precedes and follows the chunks of a body has to fit in.
  beast::flat_buffer input_{2 * server_.limits.head};
  http::request_parser<http::string_body> parser_;
  std::size_t bodyLimit_ = 0;
  // Limits the time for the request, for a wait, for the answer, and for the end; or wakes a quiet
  // stream.
  asio::steady_timer timer_;
  bool isLate_ = false;
  bool isEnding_ = false;
  bool isDiscarding_ = false;
  std::string output_;  // what is being written; empty if nothing is
  std::size_t written_ = 0;
  std::optional<HttpWait> wait_;
  std::unique_ptr<HttpStream> stream_;
  bool isWoken_ = false;  // since the stream's last piece
  Clock::time_point behindSince_ = Clock::time_point::max();
};

HttpServer::Connection::Connection(State& server, tcp::socket socket,
                                   const asio::ip::address& address)
    : server_(server), address_(address), socket_(std::move(socket)), timer_(server.loop) {
  server_.connections.push_back(this);
  error_code ignored;
  socket_.socket().set_option(tcp::no_delay(true), ignored);
  parser_.header_limit(static_cast<std::uint32_t>(server_.limits.head));
  parser_.body_limit(std::numeric_limits<std::uint64_t>::max());  // readBody sets the real one
}

HttpServer::Connection::~Connection() {
  std::erase(server_.connections, this);
  std::erase(server_.streams, this);
  std::erase(server_.waiting, this);
}

// ---- Reading --------------------------------------------------------------------------------

void HttpServer::Connection::readRequest() {
  limitRequestTime();
  http::async_read_header(socket_, input_, parser_,
                          [this, self = shared_from_this()](error_code error, std::size_t size) {
                            // The parser limits the request line and the header each by itself.
                            if (size > server_.limits.head) error = http::error::header_limit;
                            if (error) return failReading(error);
                            readBody();
                          });
}

// Ends the reading. The socket's own time limit would close it, and the client would not learn why.
void HttpServer::Connection::limitRequestTime() {
  timer_.expires_after(server_.limits.requestTime);
  timer_.async_wait([this, self = shared_from_this()](error_code error) {
    if (error) return;
    isLate_ = true;
    error_code ignored;
    socket_.socket().shutdown(tcp::socket::shutdown_receive, ignored);
  });
}

void HttpServer::Connection::readBody() {
  const auto limit = guarded([&] { return server_.handler.admit(parser_.get()); });
  if (!limit) return;
  bodyLimit_ = *limit;
  parser_.body_limit(bodyLimit_);
  if (parser_.content_length().value_or(0) > bodyLimit_) {
    return failReading(make_error_code(http::error::body_limit));
  }
  if (parser_.is_done()) return answer();
  continueBody();
  http::async_read(socket_, input_, parser_,
                   [this, self = shared_from_this()](error_code error, std::size_t) {
                     if (error) return failReading(error);
                     answer();
                   });
}

// A client may wait for this before it sends its body.
void HttpServer::Connection::continueBody() {
  if (!beast::iequals(parser_.get()[http::field::expect], "100-continue")) return;
  constexpr std::string_view proceed = "HTTP/1.1 100 Continue\r\n\r\n";
  error_code ignored;
  socket_.socket().write_some(asio::buffer(proceed), ignored);
}

void HttpServer::Connection::failReading(const error_code& error) {
  timer_.cancel();
  if (const auto refusal = refusalOf(error)) refuse(*refusal);
}

// Nothing if the client has gone, or has sent nothing at all, as browsers do that connect ahead.
std::optional<HttpRefusal> HttpServer::Connection::refusalOf(const error_code& error) const {
  using http::status;
  if (isLate_) {
    if (!parser_.got_some()) return std::nullopt;
    return HttpRefusal(status::request_timeout, fmt::format("a request has {} s to arrive",
                                                            server_.limits.requestTime.count()));
  }
  const bool isHttp = error.category() == make_error_code(http::error::bad_target).category();
  if (!isHttp || error == http::error::end_of_stream) return std::nullopt;
  if (error == http::error::body_limit) {
    return HttpRefusal(status::payload_too_large,
                       bodyLimit_ == 0 ? fmt::format("{} takes no body", pathOf(parser_.get()))
                                       : fmt::format("a body has at most {} bytes", bodyLimit_));
  }
  if (error == http::error::header_limit) {
    return HttpRefusal(
        status::request_header_fields_too_large,
        fmt::format("request line and header have at most {} bytes", server_.limits.head));
  }
  const bool hasHead = parser_.is_header_done();
  return HttpRefusal(status::bad_request,
                     hasHead ? "the body is malformed or incomplete" : "the request is malformed");
}

// ---- Answering ------------------------------------------------------------------------------

// The handler's result; without one, the client has been refused.
template <class Action>
auto HttpServer::Connection::guarded(Action action) -> std::optional<decltype(action())> {
  try {
    return action();
  } catch (const HttpRefusal& refusal) {
    refuse(refusal);
  } catch (const std::exception& error) {
    refuse({http::status::internal_server_error, error.what()});
  }
  return std::nullopt;
}

void HttpServer::Connection::refuse(const HttpRefusal& refusal) {
  send({server_.handler.refuse(refusal)});
}

void HttpServer::Connection::answer() {
  auto made = guarded([&] { return server_.handler.answer(parser_.get()); });
  if (!made) return;
  made->wait ? await(std::move(*made->wait)) : send(std::move(*made));
}

// The answer to HEAD has no body to wait for.
void HttpServer::Connection::await(HttpWait wait) {
  const bool isHead = parser_.get().method() == http::verb::head;
  timer_.expires_after(isHead ? std::chrono::milliseconds(0) : wait.time);
  timer_.async_wait([this, self = shared_from_this()](error_code error) {
    if (error || !wait_) return;
    auto response = guarded(wait_->giveUp);
    if (response) send({std::move(*response)});
  });
  wait_ = std::move(wait);
  server_.waiting.push_back(this);
  socket_.expires_never();  // for reading, as with a stream
  discard();
  look();
}

void HttpServer::Connection::look() {
  auto response = guarded(wait_->look);
  if (response && *response) send({std::move(**response)});
}

void HttpServer::Connection::stopWaiting() {
  std::erase(server_.waiting, this);
  wait_.reset();
}

void HttpServer::Connection::send(HttpAnswer answer) {
  stopWaiting();
  limitAnswerTime();
  if (!answer.stream) answer.response.prepare_payload();
  output_ = headText(answer.response);
  if (parser_.get().method() == http::verb::head) return write();
  if (answer.stream) {
    timer_.cancel();
    stream_ = std::move(answer.stream);
    server_.addStream(*this);
    output_ += stream_->next();
    socket_.expires_never();  // for reading; writing sets its own limit
    discard();
  } else {
    output_ += answer.response.body();
  }
  write();
}

// Resets the connection of a client that is late. After a normal close, the system would go on
// sending what it has already buffered.
void HttpServer::Connection::limitAnswerTime() {
  timer_.expires_after(server_.limits.answerTime);
  timer_.async_wait([this, self = shared_from_this()](error_code error) {
    if (error) return;
    error_code ignored;
    socket_.socket().set_option(asio::socket_base::linger(true, 0), ignored);
    close();
  });
}

void HttpServer::Connection::write() {
  behindSince_ = std::min(behindSince_, Clock::now());
  socket_.expires_after(writeLimit);
  socket_.async_write_some(asio::buffer(output_) + written_,
                           [this, self = shared_from_this()](error_code error, std::size_t size) {
                             if (error) return close();
                             written_ += size;
                             if (written_ < output_.size()) return write();
                             output_.clear();
                             written_ = 0;
                             behindSince_ = Clock::time_point::max();
                             wrote();
                           });
}

// The client closes first: if the server closed while part of the request is unread, the client
// could lose the rest of the answer.
void HttpServer::Connection::wrote() {
  if (stream_) {
    awaitQuiet();
    return sendNext();
  }
  error_code ignored;
  socket_.socket().shutdown(tcp::socket::shutdown_send, ignored);
  timer_.expires_after(endLimit);
  timer_.async_wait([this, self = shared_from_this()](error_code error) {
    if (!error) close();
  });
  isEnding_ = true;
  server_.limitEnding();
  if (isDiscarding_) return;
  socket_.expires_never();
  discard();
}

void HttpServer::Connection::wake() {
  isWoken_ = true;
  if (output_.empty()) sendNext();
}

void HttpServer::Connection::sendNext() {
  if (std::exchange(isWoken_, false)) output_ = stream_->next();
  if (output_.empty()) return;
  timer_.cancel();
  write();
}

void HttpServer::Connection::finish() {
  if (!output_.empty()) return;
  error_code ignored;
  socket_.socket().write_some(asio::buffer(stream_->last()), ignored);
}

void HttpServer::Connection::awaitQuiet() {
  timer_.expires_after(quietLimit);
  timer_.async_wait([this, self = shared_from_this()](error_code error) {
    if (error || !output_.empty()) return;
    output_ = stream_->quiet();
    write();
  });
}

void HttpServer::Connection::discard() {
  isDiscarding_ = true;
  input_.clear();
  socket_.async_read_some(input_.prepare(server_.limits.head),
                          [this, self = shared_from_this()](error_code error, std::size_t) {
                            // A client that has sent everything may still take its answer.
                            isDiscarding_ = error != asio::error::eof || output_.empty() || stream_;
                            if (!isDiscarding_) return;
                            if (error) return close();
                            discard();
                          });
}

void HttpServer::Connection::close() {
  std::erase(server_.streams, this);
  stopWaiting();
  timer_.cancel();
  socket_.close();
}

// ---- Accepting ------------------------------------------------------------------------------

// A name can have several addresses: takes the first one that is free.
void HttpServer::State::listen(const std::string& address, int port) {
  error_code error;
  for (const auto& found : tcp::resolver(loop).resolve(address, std::to_string(port))) {
    error = listenAt(found.endpoint());
    if (!error) return;
  }
  throw boost::system::system_error(error);
}

error_code HttpServer::State::listenAt(const tcp::endpoint& endpoint) {
  error_code error;
  acceptor = tcp::acceptor(loop);
  acceptor.open(endpoint.protocol(), error);
  if (!error) acceptor.set_option(tcp::acceptor::reuse_address(true), error);
  if (!error) acceptor.bind(endpoint, error);
  if (!error) acceptor.listen(tcp::acceptor::max_listen_connections, error);
  return error;
}

void HttpServer::State::accept() {
  acceptor.async_accept([this](error_code error, tcp::socket socket) {
    if (error) return acceptLater();
    serve(std::move(socket));
    accept();
  });
}

// A process that has run out of descriptors may soon have some again.
void HttpServer::State::acceptLater() {
  retry.expires_after(std::chrono::milliseconds(100));
  retry.async_wait([this](error_code) { accept(); });
}

void HttpServer::State::serve(tcp::socket socket) {
  error_code ignored;
  socket.non_blocking(true, ignored);
  const auto address = socket.remote_endpoint(ignored).address();
  const auto crowding = crowdingOf(address);
  const auto connection = std::make_shared<Connection>(*this, std::move(socket), address);
  crowding ? connection->refuse(*crowding) : connection->readRequest();
}

// Why there is no place for a further connection; nothing if there is one.
std::optional<HttpRefusal> HttpServer::State::crowdingOf(const asio::ip::address& address) const {
  std::size_t all = 0;
  std::size_t fromHere = 0;
  for (const Connection* const each : connections) {
    if (each->isEnding()) continue;
    ++all;
    if (each->address() == address) ++fromHere;
  }
  constexpr auto status = http::status::service_unavailable;
  if (all >= limits.connections) return HttpRefusal(status, "too many open connections");
  if (fromHere < limits.connectionsPerAddress) return std::nullopt;
  return HttpRefusal(status, "too many open connections from your address");
}

void HttpServer::State::addStream(Connection& fresh) {
  streams.push_back(&fresh);
  if (streams.size() <= limits.streams) return;
  const auto rank = [&](const Connection* stream) {
    const auto siblings = std::count_if(streams.begin(), streams.end(), [&](const auto* other) {
      return other->address() == stream->address();
    });
    return std::pair(-siblings, stream->behindSince());
  };
  const auto last =
      std::min_element(streams.begin(), streams.end(),
                       [&](const auto* one, const auto* other) { return rank(one) < rank(other); });
  (*last)->close();
}

// Clients that never close their ends must not use up the descriptors.
void HttpServer::State::limitEnding() {
  const auto isEnding = [](const Connection* each) { return each->isEnding(); };
  const auto count = std::count_if(connections.begin(), connections.end(), isEnding);
  if (static_cast<std::size_t>(count) <= limits.connections) return;
  (*std::find_if(connections.begin(), connections.end(), isEnding))->close();
}

HttpServer::HttpServer(HttpHandler& handler, const std::string& address, int port,
                       const HttpLimits& limits)
    : state_(std::make_unique<State>(handler, limits)) {
  state_->listen(address, port);
}

HttpServer::~HttpServer() {
  if (!state_->thread.joinable()) return;
  // A stream whose piece has just been taken gets its last one, too. The loop may be in the middle
  // of sending that piece: what follows the sending is queued after the first of these handlers,
  // and before the second.
  const auto finish = [this] {
    for (Connection* const each : state_->streams) each->finish();
    state_->loop.stop();
  };
  asio::post(state_->loop, [this, finish] { asio::post(state_->loop, finish); });
  state_->thread.join();
}

int HttpServer::port() const {
  return state_->acceptor.local_endpoint().port();
}

void HttpServer::start() {
  state_->accept();
  state_->thread = std::thread([this] { state_->loop.run(); });
}

void HttpServer::wake() {
  asio::post(state_->loop, [this] {
    for (Connection* const each : state_->streams) each->wake();
    // A copy, since a connection that gets its answer waits no longer.
    for (Connection* const each : std::vector(state_->waiting)) each->look();
  });
}

}  // namespace tools
