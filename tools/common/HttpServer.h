// The transport of an HTTP interface: HTTP/1.1 on one address. It passes requests to a handler and
// sends the answers; it does not know what is served, nor to whom.
//
// A connection carries one request. HttpLimits bounds what a client may send and hold. A client
// beyond a limit gets a plain refusal, and its connection is closed. A client that reads nothing of
// its answer for five seconds, or takes too long to read all of it, loses its connection.
//
// Threads: made and destroyed by one thread. One thread of the server's own serves all connections
// and calls the handler, its streams and its waits, so these should be quick.
// Ownership: the handler is borrowed, and must outlive the server. The server owns streams and
// waits.
#pragma once

#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace tools {

namespace http = boost::beast::http;

using HttpHead = http::request_header<>;
using HttpRequest = http::request<http::string_body>;  // a head and its body
using HttpResponse = http::response<http::string_body>;

// The percent-decoded path of a request, and the first parameter of that name in its query. Any
// thread.
std::string pathOf(const HttpHead& request);
std::optional<std::string> parameterOf(const HttpHead& request, std::string_view name);

// What clients may send and hold.
struct HttpLimits {
  std::size_t head = 16384;              // bytes of request line and header together
  std::chrono::seconds requestTime{10};  // for a whole request to arrive
  std::chrono::seconds answerTime{60};   // for a client to read an answer; streams may last
  std::size_t connections = 256;         // at a time
  std::size_t connectionsPerAddress = 64;
  // Open streams. One more replaces another: of the address with the most streams, the one whose
  // reader has been behind longest, or else the oldest. Readers that never finish can't keep a new
  // client out.
  std::size_t streams = 16;
};

// Why a request is not carried out.
struct HttpRefusal : std::runtime_error {
  HttpRefusal(http::status code, const std::string& reason, std::string allowed = "")
      : std::runtime_error(reason), status(code), allow(std::move(allowed)) {}
  http::status status;
  std::string allow;  // the methods that are accepted, if this one is not
};

// An answer that comes later. Its connection counts as any other meanwhile.
struct HttpWait {
  std::chrono::milliseconds time;  // how long the client waits at most
  // The response, if there is one by now. Called at the beginning, and after each `wake`.
  std::function<std::optional<HttpResponse>()> look;
  // The response when the time is up.
  std::function<HttpResponse()> giveUp;
};

// An endless body, sent piece by piece until the connection ends.
class HttpStream {
 public:
  virtual ~HttpStream() = default;
  // The next piece; empty if there is nothing new. Called at the beginning, and after `wake` once
  // the client has taken the previous piece.
  virtual std::string next() = 0;
  // A piece to send after two seconds without any, so that each side notices when the other one
  // has gone.
  virtual std::string quiet() = 0;
  // The piece that ends the stream when the server ends. Called by the thread that destroys the
  // server; a client that is slow to take earlier pieces does not get it.
  virtual std::string last() = 0;
};

struct HttpAnswer {
  HttpAnswer(HttpResponse response_, std::unique_ptr<HttpStream> stream_ = nullptr)
      : response(std::move(response_)), stream(std::move(stream_)) {}
  HttpAnswer(HttpWait wait_) : wait(std::move(wait_)) {}

  HttpResponse response;
  std::unique_ptr<HttpStream> stream;  // instead of the response's body; null for none
  std::optional<HttpWait> wait;        // instead of both
};

// May throw HttpRefusal; any other exception becomes an internal server error.
class HttpHandler {
 public:
  // Whether the request may go ahead, before its body is read. Returns the bytes that the body may
  // have.
  virtual std::size_t admit(const HttpHead& head) = 0;
  // The answer to a request that has been admitted.
  virtual HttpAnswer answer(const HttpRequest& request) = 0;
  // The response to a refusal, which comes from the handler or from the server. Must not throw.
  virtual HttpResponse refuse(const HttpRefusal& refusal) = 0;

 protected:
  ~HttpHandler() = default;
};

class HttpServer {
 public:
  // Listens when this returns; clients that connect wait for `start`. `address` is an IP address
  // without brackets, or a name; port 0 takes any free one. Throws boost::system::system_error if
  // it can't listen there.
  HttpServer(HttpHandler& handler, const std::string& address, int port,
             const HttpLimits& limits = {});
  // Ends every connection at once, whatever it waits for.
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // The actual port. Any thread.
  int port() const;

  // Begins to serve. Call it once.
  void start();

  // Makes every open stream send its next piece, and every wait check again. Any thread; returns
  // at once.
  void wake();

 private:
  class Connection;
  struct State;

  std::unique_ptr<State> state_;
};

}  // namespace tools
