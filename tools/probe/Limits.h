// How long a probe waits, and how much it asks for.
#pragma once

#include <chrono>
#include <cstddef>

namespace probe {

struct Limits {
  using Seconds = std::chrono::duration<double>;

  // For whatever should come. gRPC and the manual call a server gone after ten seconds.
  Seconds patience{10};
  // How long level 3 and above listen at least.
  Seconds listening{2};
  Seconds answer{1};
  // For all of many calls at once.
  Seconds load{60};
  // Between steady pings. A little over ten seconds, so that no server that permits ten seconds
  // receives one early.
  Seconds pingInterval{10.1};
  double messagesPerSecond = 500;
  std::size_t reopenings = 10;
  std::size_t gateways = 3;
  std::size_t calls = 1000;
};

}  // namespace probe
