// What the relay of `gatewayctl sim` costs, with raw TCP connections on the loopback interface:
//
//   trip/WAY/BYTES   a message of BYTES there and back again, as often as possible
//   rate/WAY/BYTES   messages of BYTES, as many as fit. The counter "bytes" gives the bytes per
//                      second that got through, "relay" the relay's CPU seconds per byte
//
//   bench-relay [OPTIONS OF GOOGLE BENCHMARK]
//
// WAY is direct or relayed. Messages are HTTP/2 frames, since the relay understands nothing else.
#include <benchmark/benchmark.h>
#include <pthread.h>

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <ctime>
#include <memory>
#include <string>
#include <thread>

#include "tools/sim/Relay.h"

namespace {

namespace asio = boost::asio;
using asio::ip::tcp;
using benchmark::State;

const auto loopback = asio::ip::address_v4::loopback();

// A relay in front of a port, on a thread of its own.
class RunningRelay {
 public:
  explicit RunningRelay(unsigned short server)
      : relay_(loop_, "127.0.0.1:0", "--meters", server), thread_([this] { loop_.run(); }) {}
  ~RunningRelay() {
    loop_.stop();
    thread_.join();
  }
  RunningRelay(const RunningRelay&) = delete;
  RunningRelay& operator=(const RunningRelay&) = delete;

  unsigned short port() const {
    const auto& address = relay_.address();
    return static_cast<unsigned short>(std::stoi(address.substr(address.rfind(':') + 1)));
  }

  double cpuSeconds() {
    clockid_t clock{};
    timespec time{};
    pthread_getcpuclockid(thread_.native_handle(), &clock);
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
  }

 private:
  asio::io_context loop_;
  sim::Relay relay_;
  std::thread thread_;
};

// The two ends of a connection.
class Ends {
 public:
  explicit Ends(bool relayed) {
    tcp::acceptor acceptor(loop_, {loopback, 0});
    auto port = acceptor.local_endpoint().port();
    if (relayed) relay_ = std::make_unique<RunningRelay>(port);
    if (relay_) port = relay_->port();
    client.connect({loopback, port});
    acceptor.accept(server);
    client.set_option(tcp::no_delay(true));
    server.set_option(tcp::no_delay(true));
  }
  ~Ends() {
    client.close();
    server.close();
  }
  Ends(const Ends&) = delete;
  Ends& operator=(const Ends&) = delete;

  double relaySeconds() { return relay_ ? relay_->cpuSeconds() : 0; }

 private:
  asio::io_context loop_;
  std::unique_ptr<RunningRelay> relay_;

 public:
  tcp::socket client{loop_};
  tcp::socket server{loop_};
};

// `size` bytes of DATA frames.
std::string framesOf(std::size_t size) {
  constexpr std::size_t head = 9;
  constexpr std::size_t most = 16384;  // of a frame's content
  std::string bytes;
  while (bytes.size() < size) {
    const auto content = std::min(size - bytes.size() - head, most);
    for (const int shift : {16, 8, 0}) bytes += static_cast<char>(content >> shift);
    bytes += std::string("\0\0\0\0\0\1", head - 3);
    bytes += std::string(content, 'x');
  }
  return bytes;
}

void trip(State& state, bool relayed, std::size_t size) {
  const std::string message = framesOf(size);
  std::string read(message.size(), '\0');
  std::string echoed(message.size(), '\0');
  Ends ends(relayed);
  std::thread echo([&] {
    boost::system::error_code error;
    while (!error) {
      asio::read(ends.server, asio::buffer(echoed), error);
      if (!error) asio::write(ends.server, asio::buffer(echoed), error);
    }
  });
  for (auto _ : state) {
    asio::write(ends.client, asio::buffer(message));
    asio::read(ends.client, asio::buffer(read));
  }
  ends.client.shutdown(tcp::socket::shutdown_both);
  echo.join();
}

void rate(State& state, bool relayed, std::size_t size) {
  const std::string message = framesOf(size);
  const std::size_t count = std::min<std::size_t>(20000, (std::size_t{64} << 20) / size);
  std::string read(std::size_t{1} << 18, '\0');
  Ends ends(relayed);
  const double before = ends.relaySeconds();
  for (auto _ : state) {
    std::jthread sender([&] {
      for (std::size_t i = 0; i < count; ++i) asio::write(ends.server, asio::buffer(message));
    });
    for (std::size_t left = count * message.size(); left > 0;) {
      left -= ends.client.read_some(asio::buffer(read.data(), std::min(left, read.size())));
    }
  }
  const auto bytes =
      static_cast<double>(state.iterations()) * static_cast<double>(count * message.size());
  state.counters["bytes"] = benchmark::Counter(bytes, benchmark::Counter::kIsRate);
  state.counters["relay"] = (ends.relaySeconds() - before) / bytes;
}

void registerAll() {
  for (const std::size_t size : {64, 1024, 24 * 1024}) {
    for (const bool relayed : {false, true}) {
      const auto name = std::string(relayed ? "/relayed/" : "/direct/") + std::to_string(size);
      benchmark::RegisterBenchmark(("trip" + name).c_str(), [=](State& state) {
        trip(state, relayed, size);
      })->UseRealTime();
      benchmark::RegisterBenchmark(("rate" + name).c_str(), [=](State& state) {
        rate(state, relayed, size);
      })->UseRealTime();
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  registerAll();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
}
