// Where faults are tried: the simulator of both services and the module in its stand-in host, each
// a process of its own, on one machine or with a wire between them.
//
// Threads: a Site is made, used and destroyed on one thread; there may be several Sites at a time.
// Functions that wait throw std::runtime_error when `patience` ends.
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

// Messages per second on each stream.
constexpr int rate = 20;

// What a process uses.
struct Usage {
  int threads = 0;
  double memory = 0;  // MiB
};

Usage usageOf(pid_t process);

// ---- Lines of the simulator and of the host ----------------------------------------------------

constexpr auto paramsEvent = R"({"event":"set_params",)";
std::string openedEvent(const std::string& stream);
std::string openedEvent(const std::string& stream, int call);
std::string closedEvent(const std::string& stream);
std::string closedEvent(const std::string& stream, int call);

// The beginning of a slot's lines, by its stream; and its line while it has its default.
std::string slotLine(const std::string& stream);
std::string untouchedLine(const std::string& stream);

// How many lines so far begin like this.
std::ptrdiff_t count(const ToolProcess& process, const std::string& prefix);

// ---- The site -----------------------------------------------------------------------------------

// A namespace for each side, and between them a wire for each service.
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
  // Returns when both streams carry values and a change has arrived. Without a wire, `net` is null;
  // otherwise it must outlive the Site.
  explicit Site(Net* net);

  ToolProcess& simulator() { return *simulator_; }
  ToolProcess& host() { return *host_; }

  // Returns when the slot of a stream has changed `times` more times: by default after about a
  // second.
  void awaitValues(const std::string& stream, int times = rate) {
    host_->waitMore(slotLine(stream), times);
  }
  std::string valueOf(const std::string& stream);

  // Changes a parameter, each time to another value.
  void change();
  // The same, but returns when the server has the change.
  void changeAndAwait();
  // Calls are lost until the connection is restored, so this changes the parameter until a change
  // arrives.
  void changeUntilOneArrives();

  // Tells the simulator to begin a fault, given as a line of a plan without the time. The second
  // form returns when the fault is in effect; after the first one no other fault may follow.
  void tell(const std::string& fault) { simulator_->writeLine(fault); }
  void tellAndAwait(const std::string& fault);

  // Ends attempt number `call` of a stream, and returns when the server has seen the end.
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
