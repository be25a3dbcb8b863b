// Private networks: namespaces of the kernel, and wires between them. The packets of a wire pass
// through this process, which can delay, lose, duplicate, reorder, corrupt or answer them. This
// does not need the kernel's traffic control, but it needs the permission to make namespaces, and
// /dev/net/tun.
//
// Threads: a Wire has its own thread, and its conditions may be changed from any thread. Everything
// else is for one thread at a time.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace network {

// Owns a descriptor and closes it.
class Descriptor {
 public:
  // Throws std::system_error with `what` if the number is negative.
  Descriptor(int number, const char* what);
  ~Descriptor();
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int number() const { return number_; }

 private:
  const int number_;
};

// A network without a connection to any other, with its own 127.0.0.1. It exists as long as this
// object or a process in it.
class Namespace {
 public:
  // Throws std::system_error if the machine does not permit it.
  Namespace();

  // Runs an action with the calling thread in this namespace. Sockets that it makes and processes
  // that it starts stay there.
  void inside(const std::function<void()>& action) const;

 private:
  Descriptor place_;
};

// What the wire does to packets. The chances, from 0 to 1, are those of each packet.
struct Conditions {
  double loss = 0;
  double duplication = 0;
  double corruption = 0;  // one byte is changed
  double reordering = 0;  // the packet arrives after packets that were sent later
  std::chrono::milliseconds delay{0};
  bool toServer = true;  // whether packets pass in this direction
  bool toClient = true;
  bool resets = false;    // the wire answers every TCP packet by an RST, and lets none pass
  bool isPlugged = true;  // the client's end of the cable
  bool isUp = true;       // the client's interface
};

// A cable between two namespaces, an address at each end.
class Wire {
 public:
  struct End {
    const Namespace& place;
    std::string address;  // IPv4, in a network of 24 bits
  };

  // Throws std::system_error if the machine does not permit it.
  Wire(const End& client, const End& server, std::uint64_t seed);
  ~Wire();
  Wire(const Wire&) = delete;
  Wire& operator=(const Wire&) = delete;

  void setConditions(const Conditions& conditions);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// Why this machine permits no wires; empty if it does.
std::string whatForbidsWires();

}  // namespace network
