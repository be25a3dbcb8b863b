// What `gatewayctl sim` does with --commands: it tells of every call in a line each on standard
// output, and sends nothing but what lines of commands say.
//
// Threads: as a CallListener it hears of calls on gRPC's threads; `carryOut` is for one thread,
// that of the commands.
// Ownership: it shares in the SetParams calls that it was told to hold, until they are answered or
// closed.
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
  // The commands, a line each, for people.
  static std::string manual();

  void opened(const std::shared_ptr<Call>& call) override;
  void sent(const Call& call, std::uint64_t count) override;
  void closed(const Call& call, bool cancelled) override;

  // Carries out one line, on the calls of `simulator`; an empty one does nothing. What is wrong
  // with it is told in a line "error TEXT". False if it was quit.
  bool carryOut(const Simulator& simulator, std::string_view line);

 private:
  // A row of the table of commands, which parser and manual share.
  struct Command;

  using Words = std::span<const std::string_view>;

  // Each carries out the command of its name. Its arguments are as many as its row says.
  void send(const Simulator& simulator, Words arguments);
  void stop(const Simulator& simulator, Words arguments);
  void end(const Simulator& simulator, Words arguments);
  void engineReply(const Simulator& simulator, Words arguments);
  void engineFail(const Simulator& simulator, Words arguments);
  void engineHold(const Simulator& simulator, Words arguments);
  void engineRelease(const Simulator& simulator, Words arguments);
  void sync(const Simulator& simulator, Words arguments);
  void quit(const Simulator& simulator, Words arguments);

  // The mutex is held.
  void answer(Call& call) const;

  bool quit_ = false;  // the command thread's

  std::mutex mutex_;  // of all below, and from the telling of a SetParams call to its treatment
  grpc::StatusCode status_ = grpc::StatusCode::OK;
  std::string reply_;
  bool holding_ = false;
  std::vector<std::shared_ptr<Call>> held_;
};

}  // namespace sim
