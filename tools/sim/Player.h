// What `gatewayctl sim` does without --commands: it plays signals on all streams, and shows each
// SetParams call and has it answered.
//
// A Player hears of the calls and gives each stream its first messages at once; a Ticker for each
// stream method sends the messages after that, and a Heartbeat an empty one to each stream that has
// been quiet for long. What a stream gets can be disturbed.
#pragma once

#include <array>
#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include "tools/sim/EngineAnswers.h"
#include "tools/sim/Report.h"
#include "tools/sim/Signals.h"
#include "tools/sim/Simulator.h"

namespace sim {

// What to play.
struct PlayerSettings {
  std::vector<KeySpec> keys;
  double rateFast = 10;  // batches per second, 0 for none
  double rateSlow = 1;
  std::size_t valuesPerMessage = Signals::unlimited;  // a batch of more is several messages
  std::uint64_t seed = 1;

  double rateOf(Method method) const { return method == Method::Fast ? rateFast : rateSlow; }
};

// How a stream is fed: with signals; with nothing; with as many messages as it takes.
enum class Feed { Signals, Nothing, Flood };

// Any thread.
class Player final : public CallListener {
 public:
  using Clock = std::chrono::steady_clock;

  // All are borrowed for the Player's life, which is the time that its signals play.
  Player(const PlayerSettings& settings, const Report& report, EngineAnswers& answers);

  // How the streams of a method are fed from now on, those of `simulator` and those to come.
  void setFeed(const Simulator& simulator, Method method, Feed feed);

  // Sends the signals of the moment to a stream that is fed with signals. One that has not taken
  // its last messages yet misses these: values are of the moment.
  void play(Call& call) const;

  // When the stream will have been quiet for so long, or already has; nothing if it is not to be
  // fed, or busy.
  std::optional<Clock::time_point> quietFor(const Call& call, Clock::duration time) const;

  void opened(const std::shared_ptr<Call>& call) override;
  void sent(const Call& call, std::uint64_t count) override;
  void closed(const Call& call, bool cancelled) override;

 private:
  Feed feedOf(Method method) const { return feeds_[static_cast<std::size_t>(method)]; }
  std::vector<std::string> messagesNow(Method method) const;
  // The mutex is held.
  void sendNow(Call& call) const;
  void flood(Call& call) const;

  const PlayerSettings& settings_;
  const Report& report_;
  EngineAnswers& answers_;
  const Signals signals_;
  const Clock::time_point begin_ = Clock::now();

  mutable std::mutex mutex_;  // of the feeds, and while something is sent by them
  std::array<Feed, 2> feeds_{Feed::Signals, Feed::Signals};

  mutable std::mutex timesMutex_;  // of all below
  std::map<const Call*, Clock::time_point> lastSent_;
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

// Sends an empty Meter to each stream that nothing else was sent on for `seconds`, on the thread of
// the loop. All are borrowed until the loop has been stopped.
class Heartbeat {
 public:
  Heartbeat(asio::io_context& loop, double seconds, const Player& player,
            const Simulator& simulator);

 private:
  void beat();

  const std::chrono::steady_clock::duration period_;
  const Player& player_;
  const Simulator& simulator_;
  asio::steady_timer timer_;
};

}  // namespace sim
