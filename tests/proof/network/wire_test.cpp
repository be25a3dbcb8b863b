// A wire does to packets what its conditions say. Otherwise a fault that does not affect the
// gateway might simply not have happened.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "tests/proof/Proof.h"
#include "tests/proof/network/Wire.h"
#include "tests/support/SimProcess.h"

namespace network {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::size_t sent = 120;  // packets, few enough for a socket's buffer
constexpr auto clientAddress = "10.77.1.1";
constexpr auto serverAddress = "10.77.1.2";

sockaddr_in serverPlace() {
  sockaddr_in place{};
  place.sin_family = AF_INET;
  place.sin_port = htons(5000);
  inet_pton(AF_INET, serverAddress, &place.sin_addr);
  return place;
}

std::unique_ptr<Descriptor> socketIn(const Namespace& place, int type) {
  std::unique_ptr<Descriptor> made;
  place.inside([&] {
    made = std::make_unique<Descriptor>(socket(AF_INET, type | SOCK_CLOEXEC, 0), "socket");
  });
  return made;
}

// The packets that arrived, in their order, and how long the first one took.
struct Arrivals {
  std::vector<int> numbers;
  milliseconds first{0};
};

// Sends numbered packets over a wire from a client to a server.
class WireTest {
 public:
  WireTest() {
    auto place = serverPlace();
    const timeval enough{0, 400'000};
    setsockopt(receiver_->number(), SOL_SOCKET, SO_RCVTIMEO, &enough, sizeof enough);
    EXPECT_EQ(bind(receiver_->number(), reinterpret_cast<sockaddr*>(&place), sizeof place), 0);
  }

  // Returns when at least this many packets have arrived, and then no more.
  Arrivals sendIn(const Conditions& conditions, std::size_t atLeast = 0) {
    auto place = serverPlace();
    wire_.setConditions(conditions);
    const auto begin = Clock::now();
    for (int i = 0; i < static_cast<int>(sent); ++i) {
      sendto(sender_->number(), &i, sizeof i, 0, reinterpret_cast<sockaddr*>(&place), sizeof place);
    }
    auto arrivals = receive(begin, atLeast);
    wire_.setConditions({});
    return arrivals;
  }

  // Returns the error of a connection attempt.
  int connectIn(const Conditions& conditions) {
    auto place = serverPlace();
    wire_.setConditions(conditions);
    const auto client = socketIn(client_, SOCK_STREAM);
    const int result = connect(client->number(), reinterpret_cast<sockaddr*>(&place), sizeof place);
    return result == 0 ? 0 : errno;
  }

 private:
  Arrivals receive(Clock::time_point begin, std::size_t atLeast) const {
    Arrivals arrivals;
    for (;;) {
      int number = 0;
      const bool isQuiet = recv(receiver_->number(), &number, sizeof number, 0) < 0;
      const bool isOver = arrivals.numbers.size() >= atLeast || Clock::now() - begin > patience;
      if (isQuiet && isOver) return arrivals;
      if (isQuiet) continue;
      if (arrivals.numbers.empty()) {
        arrivals.first = std::chrono::duration_cast<milliseconds>(Clock::now() - begin);
      }
      arrivals.numbers.push_back(number);
    }
  }

  const Namespace client_;
  const Namespace server_;
  Wire wire_{{client_, clientAddress}, {server_, serverAddress}, proof::seed()};
  const std::unique_ptr<Descriptor> sender_ = socketIn(client_, SOCK_DGRAM);
  const std::unique_ptr<Descriptor> receiver_ = socketIn(server_, SOCK_DGRAM);
};

TEST(Wire, DoesToPacketsWhatItsConditionsSay) {
  if (!whatForbidsWires().empty()) return;  // a row of the other test reports it
  WireTest test;
  const auto countIn = [&](const Conditions& conditions, std::size_t atLeast) {
    return test.sendIn(conditions, atLeast).numbers.size();
  };
  const auto plain = test.sendIn({}, sent);
  EXPECT_EQ(plain.numbers.size(), sent);
  EXPECT_TRUE(std::is_sorted(plain.numbers.begin(), plain.numbers.end()));
  const auto afterLoss = countIn({.loss = 0.1}, sent / 2);
  EXPECT_LT(afterLoss, sent);
  EXPECT_GE(afterLoss, sent / 2);
  EXPECT_GT(countIn({.duplication = 0.3}, sent + 1), sent);
  EXPECT_LT(countIn({.corruption = 0.1}, sent / 2), sent);
  const auto reordered = test.sendIn({.reordering = 0.3}, sent);
  EXPECT_EQ(reordered.numbers.size(), sent);
  EXPECT_FALSE(std::is_sorted(reordered.numbers.begin(), reordered.numbers.end()));
  constexpr milliseconds delay(150);
  EXPECT_GE(test.sendIn({.delay = delay}, sent).first, delay);
  EXPECT_EQ(countIn({.toServer = false}, 0), 0);
  EXPECT_EQ(countIn({.toClient = false}, sent), sent);
  EXPECT_EQ(countIn({.isPlugged = false}, 0), 0);
  EXPECT_EQ(countIn({.isUp = false}, 0), 0);
  EXPECT_EQ(test.connectIn({.resets = true}), ECONNREFUSED);
  EXPECT_EQ(countIn({}, sent), sent);
}

}  // namespace
}  // namespace network
