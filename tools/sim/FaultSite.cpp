#include "tools/sim/FaultSite.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

#include "tools/common/Output.h"

namespace sim {

void FaultSite::send(const std::string& message) const {
  for (const auto& call : streams()) call->send(message);
}

void FaultSite::endStreams(grpc::StatusCode status) const {
  for (const auto& call : streams()) call->end(status);
}

void FaultSite::setFeed(Feed feed) const {
  targets_.player.setFeed(targets_.simulator, method(), feed);
}

void FaultSite::sendHalf(const std::string& message) {
  for (auto& call : streams()) {
    call->send(message);
    targets_.halves.push_back(std::move(call));
  }
}

void FaultSite::endHalves() {
  std::erase_if(targets_.halves, [&](const auto& call) {
    if (call->opening().method != method()) return false;
    call->end(grpc::StatusCode::UNAVAILABLE);
    return true;
  });
}

void FaultSite::setLoss(const std::optional<Loss>& loss) const {
  targets_.player.delivery().setLoss(method(), loss);
}

void FaultSite::setDelay(const std::optional<Delay>& delay) const {
  if (subject_ == Subject::Meters) {
    targets_.player.delivery().setDelay(delay);
  } else {
    targets_.answers.setDelay(delay);
  }
}

Relay* FaultSite::relayOrNull() const {
  return subject_ == Subject::Meters ? targets_.meters : targets_.engine;
}

std::vector<std::shared_ptr<Call>> FaultSite::streams() const {
  auto calls = targets_.simulator.openCalls(method());
  if (calls.empty()) {
    tools::say("sim", fmt::format("no {} stream is open for this fault", nameOf(method())));
  }
  return calls;
}

}  // namespace sim
