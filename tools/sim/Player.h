// What `gatewayctl sim` does without --commands: it plays signals on all streams, and shows and
// answers each SetParams call.
//
// A Player hears of the calls and gives each stream its first message at once; a Ticker for each
// stream method sends the messages after that.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include "tools/sim/Signals.h"
#include "tools/sim/Simulator.h"

namespace sim {

// What to play.
struct PlayerSettings {
  std::vector<KeySpec> keys;
  double rateFast = 10;  // messages per second, 0 for none
  double rateSlow = 1;
  std::uint64_t seed = 1;

  double rateOf(Method method) const { return method == Method::Fast ? rateFast : rateSlow; }
};

// Prints "SetParams NUMBER KEY TYPE VALUE" on standard output for each parameter that comes, and
// on standard error which streams open and close. Never changes once built: any thread.
class Player final : public CallListener {
 public:
  // `settings` are borrowed for the Player's life, which is the time that its signals play.
  explicit Player(const PlayerSettings& settings);

  // The bytes of a Meter with the signals of a stream method as they are now.
  std::string meterNow(Method method) const;

  void opened(const std::shared_ptr<Call>& call) override;
  void sent(const Call&, std::uint64_t) override {}
  void closed(const Call& call, bool cancelled) override;

 private:
  const PlayerSettings& settings_;
  const Signals signals_;
  const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
};

// Sends a method's signals to all its open streams, at its rate, as long as the Ticker lives: on a
// thread of its own, which its destructor ends and waits for. At rate 0 it does nothing.
class Ticker {
 public:
  // `player` and `simulator` are borrowed for the Ticker's life.
  Ticker(const PlayerSettings& settings, const Player& player, const Simulator& simulator,
         Method method);
  Ticker(const Ticker&) = delete;
  Ticker& operator=(const Ticker&) = delete;

 private:
  void run(const std::stop_token& stop, std::chrono::steady_clock::duration period);
  void tick();

  const Player& player_;
  const Simulator& simulator_;
  const Method method_;
  std::jthread thread_;
};

}  // namespace sim
