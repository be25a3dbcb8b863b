// Where faults are tried: the simulator of both services and the module in its stand-in host, each
// a process of its own, on one machine or with a wire between them.
//
// Threads: a Site lives and dies on one thread, as its processes do; several may stand side by
// side. Waiting is bounded by `patience`, and ends in std::runtime_error.
#pragma once

#include <sys/types.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "tests/proof/network/Wire.h"
#include "tests/support/SimProcess.h"
#include "tests/support/TemporaryFolder.h"

namespace network {

const std::array<std::string, 2> streamNames{"fast", "slow"};

// Messages a second on each stream.
constexpr int rate = 20;

// What a process holds of the machine.
struct Usage {
  int threads = 0;
  double memory = 0;  // MiB
};

Usage usageOf(pid_t process);

// ---- What the simulator and the host say --------------------------------------------------------

constexpr auto paramsEvent = R"({"event":"set_params",)";
std::string openedEvent(const std::string& stream);
std::string openedEvent(const std::string& stream, int call);
std::string closedEvent(const std::string& stream);
std::string closedEvent(const std::string& stream, int call);

// Of a slot, by its stream, and of one that has its default.
std::string slotLine(const std::string& stream);
std::string untouchedLine(const std::string& stream);

// Lines so far.
std::ptrdiff_t count(const ToolProcess& process, const std::string& prefix);

// ---- The site -----------------------------------------------------------------------------------

// A namespace for either side, and between them a wire for each service.
struct Net {
  explicit Net(std::uint64_t seed)
      : meters({gateway, "10.77.1.1"}, {servers, "10.77.1.2"}, seed),
        engine({gateway, "10.77.2.1"}, {servers, "10.77.2.2"}, seed + 1) {}

  Namespace gateway;
  Namespace servers;
  Wire meters;
  Wire engine;
};

class Site {
 public:
  // Returns when both streams flow and a change has arrived. The net is borrowed, null for none.
  explicit Site(Net* net);

  ToolProcess& simulator() { return *simulator_; }
  ToolProcess& host() { return *host_; }

  // Returns when the slot of a stream has moved so often again; by default in about a second.
  void awaitValues(const std::string& stream, int times = rate) {
    host_->waitMore(slotLine(stream), times);
  }
  std::string valueOf(const std::string& stream);

  // A change of a parameter. Each has a value of its own.
  void change();
  // Returns when the server has it.
  void changeAndAwait();
  // Calls may be lost until a connection is back: changes go on until one arrives.
  void changeUntilOneArrives();

  // Has the simulator do a fault, a line without its time, sooner or later; the second form returns
  // when it is in effect. One that has not been waited for must be the last.
  void tell(const std::string& fault) { simulator_->writeLine(fault); }
  void tellAndAwait(const std::string& fault);

  // Ends attempt number `call` of a stream, and returns when the server has seen that.
  void endStream(const std::string& stream, int call);

 private:
  void startSimulator(Net* net);
  void startHost(Net* net);
  std::string addressOf(const std::string& service);

  TemporaryFolder files_;
  std::unique_ptr<ToolProcess> simulator_;
  std::unique_ptr<ToolProcess> host_;
  int changes_ = 0;
};

}  // namespace network
