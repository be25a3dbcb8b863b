// The relay in front of the simulator, when the process runs out of descriptors.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <string>

#include "tests/tools/sim/SimTest.h"
#include "tools/sim/Relay.h"

namespace {

using boost::asio::ip::tcp;

// While this lives, the process can't open anything.
class NoDescriptors {
 public:
  NoDescriptors() {
    getrlimit(RLIMIT_NOFILE, &before_);
    set(0);
  }
  ~NoDescriptors() { set(before_.rlim_cur); }
  NoDescriptors(const NoDescriptors&) = delete;
  NoDescriptors& operator=(const NoDescriptors&) = delete;

 private:
  void set(rlim_t limit) const {
    const rlimit now{limit, before_.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &now), 0);
  }

  rlimit before_{};
};

TEST(Relay, AcceptsAgainAfterRunningOutOfDescriptors) {
  boost::asio::io_context loop;
  tcp::acceptor server(loop, {boost::asio::ip::address_v4::loopback(), 0});
  sim::Relay relay(loop, SimProcess::anyPort, "--meters", server.local_endpoint().port());
  tcp::socket client(loop, tcp::v4());
  client.connect({boost::asio::ip::address_v4::loopback(), portOf(relay.address())});
  {
    const NoDescriptors none;
    ASSERT_EQ(loop.run_one_for(patience), 1U);
  }
  bool arrived = false;
  server.async_accept([&](boost::system::error_code error, const tcp::socket&) {
    arrived = !error;
    loop.stop();
  });
  loop.run_for(patience);
  EXPECT_TRUE(arrived);
}

}  // namespace
