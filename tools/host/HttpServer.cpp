#include "tools/host/HttpServer.h"

#include <fmt/format.h>

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
#include <set>
#include <sstream>
#include <thread>
#include <utility>

namespace host {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
using asio::ip::tcp;
using boost::system::error_code;

constexpr std::chrono::seconds requestLimit(2);  // to send a request whole
constexpr std::chrono::seconds writeLimit(5);    // without a byte being taken
constexpr std::chrono::seconds quietLimit(2);    // without a piece of a stream

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
std::pair<std::string, std::string> partsOf(const HttpRequest& request) {
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

// Why a request could not be read; nothing if the client has gone, or was too slow.
std::optional<HttpRefusal> refusalOf(const error_code& error, bool hasHead) {
  using http::status;
  if (error.category() != make_error_code(http::error::bad_target).category() ||
      error == http::error::end_of_stream) {
    return std::nullopt;
  }
  if (error == http::error::body_limit) {
    return HttpRefusal(status::payload_too_large,
                       fmt::format("a body has at most {} bytes", HttpServer::bodyLimit));
  }
  if (error == http::error::header_limit) {
    return HttpRefusal(status::request_header_fields_too_large,
                       fmt::format("a header has at most {} bytes", HttpServer::headLimit));
  }
  if (hasHead) return HttpRefusal(status::bad_request, "the body is not whole");
  return HttpRefusal(status::bad_request, "not a fit request");
}

}  // namespace

std::string pathOf(const HttpRequest& request) {
  return percentDecoded(partsOf(request).first);
}

std::optional<std::string> parameterOf(const HttpRequest& request, std::string_view name) {
  std::istringstream query(partsOf(request).second);
  for (std::string pair; std::getline(query, pair, '&');) {
    const std::size_t end = pair.find('=');
    if (percentDecoded(pair.substr(0, end)) != name) continue;
    return end == pair.npos ? "" : percentDecoded(pair.substr(end + 1));
  }
  return std::nullopt;
}

// ---- Connections ----------------------------------------------------------------------------

struct HttpServer::State {
  State(HttpHandler& handler_, int maximalConnections_)
      : handler(handler_), maximalConnections(maximalConnections_) {}

  void listen(const std::string& address, int port);
  error_code listenAt(const tcp::endpoint& endpoint);
  void accept();
  void acceptLater();
  void serve(tcp::socket socket);
  void turnAway(tcp::socket socket) const;

  HttpHandler& handler;
  const int maximalConnections;
  int connections = 0;
  std::set<Connection*> streams;  // connections with an open stream

  // What a connection waits for keeps it alive, so that the loop owns all of them.
  asio::io_context loop{1};
  tcp::acceptor acceptor{loop};
  asio::steady_timer retry{loop};  // of an accept that failed
  std::thread thread;
};

// Reads the request, writes the answer, and waits for the client to close; with a stream, it writes
// until then.
class HttpServer::Connection : public std::enable_shared_from_this<Connection> {
 public:
  Connection(State& server, tcp::socket socket);
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  void readHead();
  // Sends the stream's next piece, if there is one.
  void wake();
  // Sends the stream's last piece if the client can take it at once. The loop must have ended.
  void finish();

 private:
  void readBody();
  void failReading(const error_code& error);
  HttpAnswer answer();
  void send(HttpAnswer answer);
  void write();
  void wrote();
  void sendNext();
  void awaitQuiet();
  // Reads whatever comes until the client closes.
  void discard();
  void close();

  State& server_;
  beast::tcp_stream socket_;
  beast::flat_buffer input_;
  http::request_parser<http::string_body> parser_;
  std::string output_;  // what is being written; empty if nothing is
  std::size_t written_ = 0;
  std::unique_ptr<HttpStream> stream_;
  bool isWoken_ = false;  // since the stream's last piece
  asio::steady_timer quiet_;
};

HttpServer::Connection::Connection(State& server, tcp::socket socket)
    : server_(server), socket_(std::move(socket)), quiet_(server.loop) {
  ++server_.connections;
  error_code ignored;
  socket_.socket().set_option(tcp::no_delay(true), ignored);
  parser_.header_limit(headLimit);
  parser_.body_limit(bodyLimit);
}

HttpServer::Connection::~Connection() {
  --server_.connections;
  server_.streams.erase(this);
}

void HttpServer::Connection::readHead() {
  socket_.expires_after(requestLimit);
  http::async_read_header(socket_, input_, parser_,
                          [this, self = shared_from_this()](error_code error, std::size_t) {
                            if (error) return failReading(error);
                            readBody();
                          });
}

void HttpServer::Connection::readBody() {
  if (parser_.is_done()) return send(answer());
  if (beast::iequals(parser_.get()[http::field::expect], "100-continue")) {
    constexpr std::string_view proceed = "HTTP/1.1 100 Continue\r\n\r\n";
    error_code ignored;
    socket_.socket().write_some(asio::buffer(proceed), ignored);
  }
  http::async_read(socket_, input_, parser_,
                   [this, self = shared_from_this()](error_code error, std::size_t) {
                     if (error) return failReading(error);
                     send(answer());
                   });
}

void HttpServer::Connection::failReading(const error_code& error) {
  const auto refusal = refusalOf(error, parser_.is_header_done());
  if (refusal) send({server_.handler.refuse(*refusal)});
}

HttpAnswer HttpServer::Connection::answer() try {
  return server_.handler.answer(parser_.get());
} catch (const HttpRefusal& refusal) {
  return {server_.handler.refuse(refusal)};
} catch (const std::exception& error) {
  return {server_.handler.refuse({http::status::internal_server_error, error.what()})};
}

void HttpServer::Connection::send(HttpAnswer answer) {
  if (!answer.stream) answer.response.prepare_payload();
  output_ = headText(answer.response);
  if (parser_.get().method() == http::verb::head) return write();
  if (answer.stream) {
    stream_ = std::move(answer.stream);
    server_.streams.insert(this);
    output_ += stream_->next();
    socket_.expires_never();  // for reading; writing sets its own limit
    discard();
  } else {
    output_ += answer.response.body();
  }
  write();
}

void HttpServer::Connection::write() {
  socket_.expires_after(writeLimit);
  socket_.async_write_some(asio::buffer(output_) + written_,
                           [this, self = shared_from_this()](error_code error, std::size_t size) {
                             if (error) return close();
                             written_ += size;
                             if (written_ < output_.size()) return write();
                             output_.clear();
                             written_ = 0;
                             wrote();
                           });
}

// The client closes first: closing while something of its request is unread would take back what it
// has not read of the answer.
void HttpServer::Connection::wrote() {
  if (stream_) {
    awaitQuiet();
    return sendNext();
  }
  error_code ignored;
  socket_.socket().shutdown(tcp::socket::shutdown_send, ignored);
  socket_.expires_after(requestLimit);
  discard();
}

void HttpServer::Connection::wake() {
  isWoken_ = true;
  if (output_.empty()) sendNext();
}

void HttpServer::Connection::sendNext() {
  if (std::exchange(isWoken_, false)) output_ = stream_->next();
  if (output_.empty()) return;
  quiet_.cancel();
  write();
}

void HttpServer::Connection::finish() {
  if (!output_.empty()) return;
  error_code ignored;
  socket_.socket().write_some(asio::buffer(stream_->last()), ignored);
}

void HttpServer::Connection::awaitQuiet() {
  quiet_.expires_after(quietLimit);
  quiet_.async_wait([this, self = shared_from_this()](error_code error) {
    if (error || !output_.empty()) return;
    output_ = stream_->quiet();
    write();
  });
}

void HttpServer::Connection::discard() {
  input_.clear();
  socket_.async_read_some(input_.prepare(1024),
                          [this, self = shared_from_this()](error_code error, std::size_t) {
                            if (error) return close();
                            discard();
                          });
}

void HttpServer::Connection::close() {
  server_.streams.erase(this);
  quiet_.cancel();
  socket_.close();
}

// ---- Accepting ------------------------------------------------------------------------------

// A name can have several addresses: takes the first that it can have.
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
  if (connections == maximalConnections) return turnAway(std::move(socket));
  std::make_shared<Connection>(*this, std::move(socket))->readHead();
}

// Does not wait for the client.
void HttpServer::State::turnAway(tcp::socket socket) const {
  using http::status;
  auto response = handler.refuse({status::service_unavailable, "too many open connections"});
  response.set(http::field::retry_after, "2");
  response.prepare_payload();
  error_code ignored;
  socket.write_some(asio::buffer(headText(response) + response.body()), ignored);
  socket.shutdown(tcp::socket::shutdown_send, ignored);
}

HttpServer::HttpServer(HttpHandler& handler, const std::string& address, int port,
                       int maximalConnections)
    : state_(std::make_unique<State>(handler, maximalConnections)) {
  state_->listen(address, port);
}

HttpServer::~HttpServer() {
  state_->loop.stop();
  if (state_->thread.joinable()) state_->thread.join();
  for (Connection* const each : state_->streams) each->finish();
}

int HttpServer::port() const {
  return state_->acceptor.local_endpoint().port();
}

void HttpServer::start() {
  state_->accept();
  state_->thread = std::thread([this] { state_->loop.run(); });
}

void HttpServer::wakeStreams() {
  asio::post(state_->loop, [this] {
    for (Connection* const each : state_->streams) each->wake();
  });
}

int HttpServer::streamCount() const {
  return static_cast<int>(state_->streams.size());
}

}  // namespace host
