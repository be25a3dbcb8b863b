// What the module sends, including what a gRPC server does not show to its application.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <future>
#include <map>
#include <optional>
#include <string_view>

#include "tests/module/grpc-gateway/GatewayTest.h"
#include "tests/support/SimProcess.h"

namespace {

// A call as the client sent it.
struct SentCall {
  std::string headers;  // encoded: plain text, or a number for a header that was sent before
  std::string body;
  bool isComplete = false;
};

// A server that accepts one connection and speaks just enough HTTP/2 to be sent calls. It answers
// none.
class SilentServer {
 public:
  SilentServer() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* const bare = reinterpret_cast<sockaddr*>(&address);
    socklen_t size = sizeof(address);
    limitWaiting(listener_);
    if (bind(listener_, bare, size) != 0 || listen(listener_, 1) != 0 ||
        getsockname(listener_, bare, &size) != 0) {
      throw std::runtime_error("no port to listen on");
    }
    target_ = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
  }
  ~SilentServer() {
    if (connection_ >= 0) close(connection_);
    close(listener_);
  }
  SilentServer(const SilentServer&) = delete;
  SilentServer& operator=(const SilentServer&) = delete;

  const std::string& target() const { return target_; }

  // The first calls of the next connection, in the order of their HTTP/2 streams.
  std::vector<SentCall> receive(std::size_t count) {
    accept();
    std::map<std::uint32_t, SentCall> calls;
    const auto isComplete = [](const auto& each) { return each.second.isComplete; };
    while (static_cast<std::size_t>(std::count_if(calls.begin(), calls.end(), isComplete)) <
           count) {
      takeFrame(calls);
    }
    std::vector<SentCall> received;
    for (const auto& [stream, call] : calls) received.push_back(call);
    return received;
  }

 private:
  static void limitWaiting(int socket) {
    const timeval limit{patience.count(), 0};
    setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
  }

  void accept() {
    constexpr std::string_view preface = "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n";
    const std::string emptySettings("\0\0\0\4\0\0\0\0\0", 9);
    connection_ = ::accept(listener_, nullptr, nullptr);
    limitWaiting(connection_);
    if (send(connection_, emptySettings.data(), emptySettings.size(), MSG_NOSIGNAL) < 0 ||
        read(preface.size()) != preface) {
      throw std::runtime_error("the client did not open an HTTP/2 connection");
    }
  }

  std::string read(std::size_t count) {
    std::string bytes(count, '\0');
    if (recv(connection_, bytes.data(), count, MSG_WAITALL) != static_cast<ssize_t>(count)) {
      throw std::runtime_error("the client has stopped sending");
    }
    return bytes;
  }

  static std::uint32_t numberIn(std::string_view bytes) {
    std::uint32_t number = 0;
    for (const char byte : bytes) number = number << 8 | static_cast<unsigned char>(byte);
    return number;
  }

  void takeFrame(std::map<std::uint32_t, SentCall>& calls) {
    enum Type : char { Data = 0, Headers = 1 };
    constexpr char endStream = 1;
    const std::string head = read(9);
    const std::string payload = read(numberIn(head.substr(0, 3)));
    const char type = head[3];
    if (type != Data && type != Headers) return;
    SentCall& call = calls[numberIn(head.substr(5))];
    (type == Data ? call.body : call.headers) += payload;
    if ((head[4] & endStream) != 0) call.isComplete = true;
  }

  const int listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int connection_ = -1;
  std::string target_;
};

class Wire : public GatewayTest {};

TEST_F(Wire, NoCallAsksForCompressionOrIsCompressed) {
  std::optional<SilentServer> server(std::in_place);
  ASSERT_EQ(start("[Meters]\nTarget=" + server->target() + "\n[Engine]\nTarget=" +
                  server->target() + "\n[EngineString]\nParam=Key=name CustomKey=name\n"),
            0);
  const std::string text(5000, 'x');
  standin::KeyValueList changes;
  changes.addString("gateway.name", text.c_str());
  engine.notify(&changes);

  std::string headers;
  std::map<std::string, std::string> bodies;
  for (const SentCall& call : server->receive(3)) {
    headers += call.headers;
    for (const char* method : {"GetMetersFast", "GetMetersSlow", "SetParams"}) {
      if (call.headers.find(method) != call.headers.npos) bodies[method] = call.body;
    }
  }
  EXPECT_NE(headers.find("grpc-accept-encoding"), headers.npos);
  EXPECT_EQ(headers.find("grpc-encoding"), headers.npos);
  // A message begins with a flag for compression and its length in four bytes.
  const std::string empty("\0\0\0\0\0", 5);
  EXPECT_EQ(bodies["GetMetersFast"], empty);
  EXPECT_EQ(bodies["GetMetersSlow"], empty);
  EXPECT_EQ(bodies["SetParams"].substr(0, 1), std::string(1, '\0'));
  EXPECT_NE(bodies["SetParams"].find(text), std::string::npos);

  // The stop would wait for an answer to SetParams, so the server closes the connection meanwhile.
  auto stopped = std::async(std::launch::async, [this] { instance.stop(); });
  ASSERT_TRUE(host.waitUntil([this] {
    const Journal lines = log();
    return std::find(lines.begin(), lines.end(), stopSteps[6]) != lines.end();
  }));
  server.reset();
  stopped.get();
  expectNothingLeft();
}

}  // namespace
