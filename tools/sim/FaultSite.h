// Where a fault acts: the part of a run that its subject names. The rows of FaultKinds.cpp carry
// out each kind of fault with these operations.
//
// Threads: the one that runs the loop.
// Ownership: everything is borrowed, except the streams that have received half a message.
#pragma once

#include <grpcpp/support/status.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/sim/Call.h"
#include "tools/sim/Chance.h"
#include "tools/sim/EngineAnswers.h"
#include "tools/sim/FaultKinds.h"
#include "tools/sim/Player.h"
#include "tools/sim/Relay.h"
#include "tools/sim/Simulator.h"

namespace sim {

// The parts of a run that faults can act on. A relay is null if nothing needs it.
struct FaultTargets {
  const PlayerSettings& settings;
  Player& player;
  EngineAnswers& answers;
  const Simulator& simulator;
  Relay* meters;
  Relay* engine;
  std::vector<std::shared_ptr<Call>> halves{};  // streams that have received half a message
};

class FaultSite {
 public:
  FaultSite(FaultTargets& targets, Subject subject) : targets_(targets), subject_(subject) {}

  // ---- The streams of the subjects Fast and Slow ----

  Method method() const { return subject_ == Subject::Fast ? Method::Fast : Method::Slow; }
  const std::vector<KeySpec>& keys() const { return targets_.settings.keys; }

  // These act on each open stream, and log if there is none.
  void send(const std::string& message) const;
  void endStreams(grpc::StatusCode status) const;

  void setFeed(Feed feed) const;

  // Sends a message that the relay cuts in half. `endHalves` then ends those streams.
  void sendHalf(const std::string& message);
  void endHalves();

  void setLoss(const std::optional<Loss>& loss) const;

  // Delays the messages of both streams for the subject Meters, and the answers for Engine.
  void setDelay(const std::optional<Delay>& delay) const;

  // ---- The connections of the subjects Meters and Engine ----

  // Null if the address has no relay, and so no connection that could fail.
  Relay* relayOrNull() const;
  Relay& relay() const { return *relayOrNull(); }

  // ---- The engine service ----

  EngineAnswers& answers() const { return targets_.answers; }

 private:
  std::vector<std::shared_ptr<Call>> streams() const;

  FaultTargets& targets_;
  const Subject subject_;
};

}  // namespace sim
