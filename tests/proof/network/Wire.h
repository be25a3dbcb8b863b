// Networks of a test's own: namespaces of the kernel, and wires between them whose packets pass
// through the test, which delays, loses, doubles, reorders, breaks or answers them. So it takes no
// traffic control of the kernel, but two permissions: to make namespaces, and /dev/net/tun.
//
// Threads: a Wire has one of its own; all else is for one thread at a time, but that the weather
// may be changed from any.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace network {

// A descriptor, closed in the end.
class Descriptor {
 public:
  // Throws std::system_error with `what` if it is none.
  Descriptor(int number, const char* what);
  ~Descriptor();
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int number() const { return number_; }

 private:
  const int number_;
};

// A network without a way out, with its own 127.0.0.1. It lasts as long as this or a process in it.
class Namespace {
 public:
  // Throws std::system_error where the machine does not permit it.
  Namespace();

  // Does something with the calling thread in this namespace: sockets that it makes and processes
  // that it starts stay there.
  void inside(const std::function<void()>& action) const;

 private:
  Descriptor place_;
};

// What the wire does to packets. Chances are from 0 to 1, of each packet.
struct Weather {
  double loss = 0;
  double doubling = 0;
  double breaking = 0;  // a byte is changed
  double lateness = 0;  // that it comes later than those behind it
  std::chrono::milliseconds delay{0};
  bool toServer = true;  // whether anything passes this way
  bool toClient = true;
  bool resets = false;    // every TCP packet is answered by an RST, and none passes
  bool isPlugged = true;  // the client's end of the cable
  bool isUp = true;       // the client's interface
};

// A cable between two namespaces, an address at each end.
class Wire {
 public:
  struct End {
    const Namespace& place;
    std::string address;  // of IPv4, with 24 bits for the network
  };

  // Throws std::system_error where the machine does not permit it.
  Wire(const End& client, const End& server, std::uint64_t seed);
  ~Wire();
  Wire(const Wire&) = delete;
  Wire& operator=(const Wire&) = delete;

  void setWeather(const Weather& weather);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// Why there can be no wires here; empty if there can.
std::string whatForbidsWires();

}  // namespace network
