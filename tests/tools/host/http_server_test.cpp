// The transport of the live page, with a handler of its own and clients that write raw bytes.
#include "tools/host/HttpServer.h"

#include <gtest/gtest.h>

#include <future>

#include "tests/support/RawConnection.h"

namespace {

using host::HttpRequest;
using host::parameterOf;
using host::pathOf;

// Always has the same to say, and reports its end.
class Chatter : public host::HttpStream {
 public:
  Chatter(std::string text, std::promise<void> end)
      : text_(std::move(text)), end_(std::move(end)) {}
  ~Chatter() override { end_.set_value(); }

  std::string next() override { return text_; }
  std::string quiet() override { return "quiet"; }
  std::string last() override { return "last"; }

 private:
  const std::string text_;
  std::promise<void> end_;
};

class Transport : public ::testing::Test, public host::HttpHandler {
 protected:
  Transport() { server.start(); }

  host::HttpAnswer answer(const HttpRequest& request) override {
    host::HttpResponse response;
    const std::string path = pathOf(request);
    if (path == "/broken") throw std::logic_error("out of order");
    if (path == "/stream") {
      return {std::move(response), std::make_unique<Chatter>(piece, std::move(streamEnd))};
    }
    response.body() = path + " " + request.body();
    return {std::move(response)};
  }

  host::HttpResponse refuse(const host::HttpRefusal& refusal) override {
    host::HttpResponse response(refusal.status, 11);
    response.body() = refusal.what();
    return response;
  }

  std::string target() const { return "127.0.0.1:" + std::to_string(server.port()); }

  // The whole answer to a client that sends this and nothing more.
  std::string answerTo(const std::string& text) const {
    RawConnection client(target());
    client.write(text);
    client.endWriting();
    return client.readToTheEnd();
  }

  static void expectBody(const std::string& answer, const std::string& status,
                         const std::string& body) {
    EXPECT_TRUE(answer.starts_with("HTTP/1.1 " + status + " ")) << answer;
    EXPECT_TRUE(answer.ends_with("\r\n\r\n" + body)) << answer;
  }

  // Of the stream; to be set before it is opened.
  std::string piece = "piece";
  std::promise<void> streamEnd;
  std::future<void> streamHasEnded = streamEnd.get_future();

  host::HttpServer server{*this, "127.0.0.1", 0, 4};
};

HttpRequest requestFor(const char* target) {
  return {host::http::verb::get, target, 11};
}

TEST(Target, HasADecodedPathAndParameters) {
  const HttpRequest request = requestFor("/a%2fb%?x=1&to%6ben=a%7E&token=b&flag");
  EXPECT_EQ(pathOf(request), "/a/b%");
  EXPECT_EQ(parameterOf(request, "token"), "a~");
  EXPECT_EQ(parameterOf(request, "flag"), "");
  EXPECT_EQ(parameterOf(request, "y"), std::nullopt);
  EXPECT_EQ(parameterOf(requestFor("/token=b"), "token"), std::nullopt);
}

TEST_F(Transport, ServesOneRequestPerConnection) {
  const std::string request = "POST /a HTTP/1.1\r\nContent-Length: 2\r\n\r\nhi";
  const std::string answer = answerTo(request + request);
  expectBody(answer, "200", "/a hi");
  EXPECT_NE(answer.find("\r\nConnection: close\r\n"), answer.npos) << answer;
  EXPECT_NE(answer.find("\r\nContent-Length: 5\r\n"), answer.npos) << answer;
}

TEST_F(Transport, OmitsTheBodyForHead) {
  const std::string answer = answerTo("HEAD /a HTTP/1.1\r\n\r\n");
  expectBody(answer, "200", "");
  EXPECT_NE(answer.find("\r\nContent-Length: 3\r\n"), answer.npos) << answer;
  expectBody(answerTo("HEAD /stream HTTP/1.1\r\n\r\n"), "200", "");
}

TEST_F(Transport, TellsAWaitingClientToContinue) {
  RawConnection client(target());
  client.write("POST /a HTTP/1.1\r\nContent-Length: 2\r\nExpect: 100-continue\r\n\r\n");
  const std::string wanted = "HTTP/1.1 100 Continue\r\n\r\n";
  EXPECT_EQ(client.read(wanted.size()), wanted);
  client.write("hi");
  expectBody(client.readToTheEnd(), "200", "/a hi");
}

TEST_F(Transport, RefusesMalformedRequests) {
  expectBody(answerTo("GET /a b HTTP/1.1\r\n\r\n"), "400", "not a fit request");
  expectBody(answerTo("GET /a HTTP/1.1\r\nHost"), "400", "not a fit request");
}

TEST_F(Transport, RefusesALongHeader) {
  const std::string most(host::HttpServer::headLimit, 'x');
  expectBody(answerTo("GET /a HTTP/1.1\r\nX: " + most + "\r\n\r\n"), "431",
             "a header has at most 16384 bytes");
}

TEST_F(Transport, RefusesAnIncompleteBody) {
  expectBody(answerTo("POST /a HTTP/1.1\r\nContent-Length: 9\r\n\r\nhi"), "400",
             "the body is not whole");
}

TEST_F(Transport, ReportsAFailedHandler) {
  expectBody(answerTo("GET /broken HTTP/1.1\r\n\r\n"), "500", "out of order");
}

// The time limit is that of the whole request: a byte now and then does not extend it.
TEST_F(Transport, ClosesATricklingRequest) {
  RawConnection client(target());
  client.write("GET /a HTTP/1.1\r\nX: ");
  const auto end = std::chrono::steady_clock::now() + patience;
  bool hasEnded = false;
  while (!hasEnded && std::chrono::steady_clock::now() < end) {
    client.write("x");
    hasEnded = client.hasEnded(std::chrono::milliseconds(50));
  }
  EXPECT_TRUE(hasEnded);
}

TEST_F(Transport, SendsAPieceForEachWakeAndQuietAfterwards) {
  RawConnection client(target());
  client.write("GET /stream HTTP/1.1\r\n\r\n");
  const std::string head = "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n";
  EXPECT_EQ(client.read(head.size()), head);
  EXPECT_EQ(client.read(5), "piece");
  server.wakeStreams();
  EXPECT_EQ(client.read(10), "piecequiet");
}

TEST_F(Transport, EndsAStreamWhenItsReaderHasGone) {
  {
    RawConnection client(target());
    client.write("GET /stream HTTP/1.1\r\n\r\n");
    client.read(1);
  }
  EXPECT_EQ(streamHasEnded.wait_for(patience), std::future_status::ready);
}

TEST_F(Transport, EndsAStreamWhoseReaderTakesNothing) {
  piece = std::string(20000000, 'x');  // more than the system's buffers hold
  RawConnection deaf(target());
  deaf.write("GET /stream HTTP/1.1\r\n\r\n");
  EXPECT_EQ(streamHasEnded.wait_for(patience), std::future_status::ready);
}

}  // namespace
