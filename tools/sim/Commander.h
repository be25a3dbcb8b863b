// What `gatewayctl sim` does with --commands: it reports every call on standard output, one event
// per line, and sends only what commands tell it to send.
//
// Threads: gRPC's threads bring it the events of calls; `carryOut` is for one thread, the one that
// reads the commands.
// Ownership: it shares ownership of held SetParams calls until they are answered or closed.
#pragma once

#include <grpcpp/support/status.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tools/sim/Simulator.h"

namespace sim {

class Commander final : public CallListener {
 public:
  // The commands, as entries of the manual.
  static std::string manual();

  void opened(const std::shared_ptr<Call>& call) override;
  void sent(const Call& call, std::uint64_t count) override;
  void closed(const Call& call, bool cancelled) override;

  // Carries out one command on the calls of `simulator`; an empty line does nothing. Reports a
  // wrong command in a line "error TEXT". False after "quit".
  bool carryOut(const Simulator& simulator, std::string_view line);

 private:
  // A row of the table of commands, which parser and help share.
  struct Command;

  using Words = std::span<const std::string_view>;

  // Each carries out the command of its name, with as many arguments as its row allows.
  void send(const Simulator& simulator, Words arguments);
  void stop(const Simulator& simulator, Words arguments);
  void end(const Simulator& simulator, Words arguments);
  void engineReply(const Simulator& simulator, Words arguments);
  void engineFail(const Simulator& simulator, Words arguments);
  void engineHold(const Simulator& simulator, Words arguments);
  void engineRelease(const Simulator& simulator, Words arguments);
  void sync(const Simulator& simulator, Words arguments);
  void quit(const Simulator& simulator, Words arguments);

  // Call this with the mutex locked.
  void answer(Call& call) const;

  bool quit_ = false;  // used by the command thread only

  // Protects all below. Locked from the report of a SetParams call until it is answered or held.
  std::mutex mutex_;
  grpc::StatusCode status_ = grpc::StatusCode::OK;
  std::string reply_;
  bool holding_ = false;
  std::vector<std::shared_ptr<Call>> held_;
};

}  // namespace sim
