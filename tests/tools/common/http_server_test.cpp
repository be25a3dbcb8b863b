// The transport of an HTTP interface, with a handler of its own and clients that write raw bytes.
#include "tools/common/HttpServer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <semaphore>
#include <thread>

#include "tests/support/RawConnection.h"

namespace {

using tools::HttpRequest;
using tools::parameterOf;
using tools::pathOf;

// Always has the same to say, and reports its end.
class Chatter : public tools::HttpStream {
 public:
  Chatter(std::string text, std::counting_semaphore<>& ends)
      : text_(std::move(text)), ends_(ends) {}
  ~Chatter() override { ends_.release(); }

  std::string next() override { return text_; }
  std::string quiet() override { return "quiet"; }
  std::string last() override { return "last"; }

 private:
  const std::string text_;
  std::counting_semaphore<>& ends_;
};

class Transport : public ::testing::Test, public tools::HttpHandler {
 protected:
  Transport() { server.start(); }

  std::size_t admit(const tools::HttpHead& head) override {
    if (pathOf(head) == "/secret") {
      throw tools::HttpRefusal(tools::http::status::forbidden, "not for you");
    }
    return head.method() == tools::http::verb::post ? 100 : 0;
  }

  tools::HttpAnswer answer(const HttpRequest& request) override {
    tools::HttpResponse response;
    const std::string path = pathOf(request);
    if (path == "/broken") throw std::logic_error("out of order");
    if (path == "/stream") {
      return {std::move(response), std::make_unique<Chatter>("piece", streamEnds)};
    }
    if (path == "/flood") {  // more than the system's buffers hold
      return {std::move(response),
              std::make_unique<Chatter>(std::string(20'000'000, 'x'), streamEnds)};
    }
    if (path == "/later") return {wait()};
    const bool isLarge = path == "/large";  // more than the system's buffers hold
    response.body() = isLarge ? std::string(20'000'000, 'x') : path + " " + request.body();
    return {std::move(response)};
  }

  tools::HttpResponse refuse(const tools::HttpRefusal& refusal) override {
    tools::HttpResponse response(refusal.status, 11);
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

  static constexpr const char* broken = "broken";

  // Answers once `word` is set and the server has been woken.
  tools::HttpWait wait() {
    const auto response = [](const std::string& text) {
      tools::HttpResponse made;
      made.body() = text;
      return made;
    };
    return {.time = std::chrono::milliseconds(waitTime),
            .look = [this, response]() -> std::optional<tools::HttpResponse> {
              ++looks;
              if (word.load() == broken) throw std::logic_error("out of order");
              if (word.load() == nullptr) return std::nullopt;
              return response(word.load());
            },
            .giveUp = [response] { return response("nothing came"); }};
  }

  // Sets the word after the client has begun to wait.
  void say(const char* text) {
    while (looks == 0) std::this_thread::yield();
    word = text;
    server.wake();
  }

  std::atomic<int> waitTime = 60000;  // milliseconds
  std::atomic<int> looks = 0;
  std::atomic<const char*> word = nullptr;

  static constexpr const char* streamHead = "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n";

  std::counting_semaphore<> streamEnds{0};  // released by each stream that ends
  tools::HttpServer server{*this,
                           "127.0.0.1",
                           0,
                           {.head = 1000,
                            .requestTime = std::chrono::seconds(1),
                            .answerTime = std::chrono::seconds(1),
                            .connections = 12,
                            .connectionsPerAddress = 4,
                            .streams = 2}};
};

HttpRequest requestFor(const char* target) {
  return {tools::http::verb::get, target, 11};
}

TEST(Target, HasADecodedPathAndParameters) {
  const HttpRequest request = requestFor("/a%2fb%?x=1&to%6ben=a%7E&token=b&flag&form=a+b%2Bc");
  EXPECT_EQ(pathOf(request), "/a/b%");
  EXPECT_EQ(parameterOf(request, "token"), "a~");
  EXPECT_EQ(parameterOf(request, "flag"), "");
  EXPECT_EQ(parameterOf(request, "form"), "a b+c");
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
  expectBody(answerTo("GET /a b HTTP/1.1\r\n\r\n"), "400", "the request is malformed");
  expectBody(answerTo("GET /a HTTP/1.1\r\nHost"), "400", "the request is malformed");
}

TEST_F(Transport, LimitsRequestLineAndHeaderTogether) {
  const std::string start = "GET /a HTTP/1.1\r\nX: ";
  const std::string end = "\r\n\r\n";
  const std::string most(1000 - start.size() - end.size(), 'x');
  expectBody(answerTo(start + most + end), "200", "/a ");
  const std::string error = "request line and header have at most 1000 bytes";
  expectBody(answerTo(start + most + "x" + end), "431", error);
  expectBody(answerTo("GET /" + std::string(1000, 'x')), "431", error);
}

TEST_F(Transport, LimitsTheBodyAsTheHandlerSays) {
  const std::string post = "POST /a HTTP/1.1\r\n";
  const std::string chunked = "Transfer-Encoding: chunked\r\n\r\n";
  const std::string most(100, 'x');
  const std::string chunk = "64\r\n" + most + "\r\n";
  expectBody(answerTo(post + "Content-Length: 100\r\n\r\n" + most), "200", "/a " + most);
  expectBody(answerTo(post + chunked + chunk + "0\r\n\r\n"), "200", "/a " + most);
  const std::string error = "a body has at most 100 bytes";
  expectBody(answerTo(post + "Content-Length: 101\r\n\r\n"), "413", error);
  expectBody(answerTo(post + chunked + chunk + "1\r\nx\r\n0\r\n\r\n"), "413", error);
  expectBody(answerTo("GET /a HTTP/1.1\r\nContent-Length: 1\r\n\r\nx"), "413", "/a takes no body");
  expectBody(answerTo("GET /a HTTP/1.1\r\nContent-Length: 0\r\n\r\n"), "200", "/a ");
}

TEST_F(Transport, LimitsWhatComesBetweenChunks) {
  for (const char* start : {"1;", "0\r\nX: "}) {
    RawConnection client(target());
    client.write("POST /a HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n" +
                 (start + std::string(3000, 'x')));
    expectBody(client.readToTheEnd(), "400", "the body is malformed or incomplete");
  }
}

// A client that waits for permission to send its body is refused before it sends any.
TEST_F(Transport, RefusesBeforeTheBody) {
  RawConnection client(target());
  client.write("POST /secret HTTP/1.1\r\nContent-Length: 2\r\nExpect: 100-continue\r\n\r\n");
  expectBody(client.readToTheEnd(), "403", "not for you");
}

TEST_F(Transport, RefusesAnIncompleteBody) {
  expectBody(answerTo("POST /a HTTP/1.1\r\nContent-Length: 9\r\n\r\nhi"), "400",
             "the body is malformed or incomplete");
}

TEST_F(Transport, ReportsAFailedHandler) {
  expectBody(answerTo("GET /broken HTTP/1.1\r\n\r\n"), "500", "out of order");
}

// The time limit is that of the whole request: a byte now and then does not extend it.
TEST_F(Transport, RefusesATricklingRequest) {
  for (const char* start :
       {"GET /a HTTP/1.1\r\nX: ", "POST /a HTTP/1.1\r\nContent-Length: 100\r\n\r\n"}) {
    RawConnection client(target());
    client.write(start);
    for (int i = 0; i < 99; ++i) {
      if (client.hasInput(std::chrono::milliseconds(50))) break;
      client.write("x");
    }
    expectBody(client.readToTheEnd(), "408", "a request has 1 s to arrive");
  }
}

// The time limit applies to the whole answer: reading a little now and then does not extend it.
TEST_F(Transport, ResetsAConnectionWhoseAnswerIsReadTooSlowly) {
  RawConnection client(target());
  client.write("GET /large HTTP/1.1\r\n\r\n");
  bool isReset = false;
  for (int i = 0; i < 99 && !isReset; ++i) {
    client.read(200'000);
    isReset = client.isResetWithin(std::chrono::milliseconds(50));
  }
  EXPECT_TRUE(isReset);
}

TEST_F(Transport, SendsALargeAnswerWhole) {
  RawConnection client(target());
  client.write("GET /large HTTP/1.1\r\n\r\n");
  const std::string head =
      "HTTP/1.1 200 OK\r\nContent-Length: 20000000\r\nConnection: close\r\n\r\n";
  EXPECT_EQ(client.read(head.size()), head);
  EXPECT_EQ(client.read(30'000'000).size(), 20'000'000u);
}

TEST_F(Transport, ClosesASilentConnectionWithoutAnAnswer) {
  RawConnection client(target());
  EXPECT_EQ(client.readToTheEnd(), "");
  EXPECT_EQ(client.lastError(), 0);
}

TEST_F(Transport, SendsAPieceForEachWakeAndQuietAfterwards) {
  RawConnection client(target());
  client.write("GET /stream HTTP/1.1\r\n\r\n");
  const std::string first = std::string(streamHead) + "piece";
  EXPECT_EQ(client.read(first.size()), first);
  server.wake();
  EXPECT_EQ(client.read(10), "piecequiet");
}

TEST_F(Transport, EndsAStreamWhenItsReaderHasGone) {
  {
    RawConnection client(target());
    client.write("GET /stream HTTP/1.1\r\n\r\n");
    client.read(1);
  }
  EXPECT_TRUE(streamEnds.try_acquire_for(patience));
}

TEST_F(Transport, EndsAStreamWhoseReaderTakesNothing) {
  RawConnection deaf(target());
  deaf.write("GET /flood HTTP/1.1\r\n\r\n");
  EXPECT_TRUE(streamEnds.try_acquire_for(patience));
}

// ---- Waiting --------------------------------------------------------------------------------

TEST_F(Transport, AnswersAWaitingClientWhenTheAnswerComes) {
  RawConnection client(target());
  client.write("GET /later HTTP/1.1\r\n\r\n");
  say("hello");
  expectBody(client.readToTheEnd(), "200", "hello");
}

TEST_F(Transport, AnswersAtOnceIfThereIsNothingToWaitFor) {
  word = "hello";
  RawConnection client(target());
  client.write("GET /later HTTP/1.1\r\n\r\n");
  expectBody(client.readToTheEnd(), "200", "hello");
  EXPECT_EQ(looks, 1);
}

TEST_F(Transport, SendsTheWholeAnswerToAClientThatEndsItsSide) {
  const std::string large(20'000'000, 'x');  // more than the system's buffers hold
  word = large.c_str();
  RawConnection client(target());
  client.write("GET /later HTTP/1.1\r\n\r\n");
  client.endWriting();
  EXPECT_TRUE(client.read(30'000'000).ends_with("\r\n\r\n" + large));
}

TEST_F(Transport, GivesUpWhenTheTimeIsUp) {
  waitTime = 1;
  RawConnection client(target());
  client.write("GET /later HTTP/1.1\r\n\r\n");
  expectBody(client.readToTheEnd(), "200", "nothing came");
}

TEST_F(Transport, DoesNotWaitForTheAnswerToHead) {
  RawConnection client(target());
  client.write("HEAD /later HTTP/1.1\r\n\r\n");
  expectBody(client.readToTheEnd(), "200", "");
}

TEST_F(Transport, ReportsAFailureWhileWaiting) {
  RawConnection client(target());
  client.write("GET /later HTTP/1.1\r\n\r\n");
  say(broken);
  expectBody(client.readToTheEnd(), "500", "out of order");
}

// Otherwise clients that have gone would fill the places of others.
TEST_F(Transport, ForgetsAWaitingClientThatHasGone) {
  for (int i = 0; i < 30; ++i) {
    RawConnection client(target());
    client.write("GET /later HTTP/1.1\r\n\r\n");
    client.endWriting();
    EXPECT_EQ(client.readToTheEnd(), "");
  }
  expectBody(answerTo("GET /a HTTP/1.1\r\n\r\n"), "200", "/a ");
}

// ---- Many clients ---------------------------------------------------------------------------

// Clients of several addresses, each with connections that have sent nothing.
class Crowd : public Transport {
 protected:
  void connect(const std::string& from, int count) {
    for (int i = 0; i < count; ++i) idle.emplace_back(target(), from);
  }

  std::string answerTo(const std::string& from) {
    RawConnection client(target(), from);
    client.write("GET /a HTTP/1.1\r\n\r\n");
    return client.readToTheEnd();
  }

  std::deque<RawConnection> idle;
};

TEST_F(Crowd, LimitsTheConnectionsOfAnAddress) {
  connect("127.0.0.2", 4);
  expectBody(answerTo("127.0.0.2"), "503", "too many open connections from your address");
  expectBody(answerTo("127.0.0.3"), "200", "/a ");
}

TEST_F(Crowd, LimitsAllConnections) {
  connect("127.0.0.2", 4);
  connect("127.0.0.3", 4);
  connect("127.0.0.4", 4);
  expectBody(answerTo("127.0.0.5"), "503", "too many open connections");
}

// The server waits for a client to close first, but such a connection takes nobody's place.
TEST_F(Crowd, DoesNotCountAnsweredConnections) {
  connect("127.0.0.1", 30);
  for (RawConnection& client : idle) {
    client.write("GET /a HTTP/1.1\r\n\r\n");
    client.readToTheEnd();
  }
  expectBody(answerTo("127.0.0.1"), "200", "/a ");
}

// Opens streams; a test says which of them end.
class Readers : public Transport {
 protected:
  struct Reader : RawConnection {
    Reader(const std::string& target, const std::string& from, const char* path = "/stream")
        : RawConnection(target, from) {
      write(std::string("GET ") + path + " HTTP/1.1\r\n\r\n");
      const std::string head = streamHead;
      EXPECT_EQ(read(head.size()), head);
    }
  };

  static void expectEnd(Reader& reader) { EXPECT_EQ(reader.read(10), "piece"); }
  static void expectQuiet(Reader& reader) { EXPECT_EQ(reader.read(10), "piecequiet"); }
};

TEST_F(Readers, ReplaceTheOldest) {
  Reader one(target(), "127.0.0.2");
  Reader two(target(), "127.0.0.3");
  Reader three(target(), "127.0.0.4");
  expectEnd(one);
  expectQuiet(two);
  expectQuiet(three);
}

TEST_F(Readers, ReplaceOneOfTheAddressWithTheMost) {
  Reader other(target(), "127.0.0.2");
  Reader one(target(), "127.0.0.3");
  Reader two(target(), "127.0.0.3");
  expectEnd(one);
  expectQuiet(other);
  expectQuiet(two);
}

TEST_F(Readers, ReplaceOneThatIsBehind) {
  Reader one(target(), "127.0.0.2");
  const Reader deaf(target(), "127.0.0.3", "/flood");
  Reader two(target(), "127.0.0.4");
  EXPECT_TRUE(streamEnds.try_acquire_for(patience));
  expectQuiet(one);
  expectQuiet(two);
}

}  // namespace
