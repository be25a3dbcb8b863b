// What `gatewayctl sim` does without --commands: it plays signals on all streams, reports each
// SetParams call and passes it on to be answered.
//
// The Player gives each new stream its first messages at once. After that a Ticker for each stream
// method sends the messages, and a Heartbeat sends an empty one on each stream that has been quiet
// for a while. Faults change what streams get through Player::setFeed, and lose and delay messages
// through its Delivery.
#pragma once

#include <array>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
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

#include "tools/sim/Delivery.h"
#include "tools/sim/EngineAnswers.h"
#include "tools/sim/Report.h"
#include "tools/sim/Signals.h"
#include "tools/sim/Simulator.h"

namespace sim {

// What to play.
struct PlayerSettings {
  std::vector<KeySpec> keys;
  double rateFast = 10;  // batches per second; 0 for none
  double rateSlow = 1;
  std::size_t valuesPerMessage = Signals::unlimited;  // a larger batch becomes several messages
  std::uint64_t seed = 1;

  double rateOf(Method method) const { return method == Method::Fast ? rateFast : rateSlow; }
};

// What a stream gets: signals, nothing, or as many messages as it takes.
enum class Feed { Signals, Nothing, Flood };

// Any thread.
class Player final : public CallListener {
 public:
  using Clock = std::chrono::steady_clock;

  // Borrows everything for its life. The signals' time starts here.
  Player(const PlayerSettings& settings, const Report& report, EngineAnswers& answers,
         boost::asio::io_context& loop);

  // Sends messages that should reach the client, unless a fault loses or delays them.
  Delivery& delivery() { return delivery_; }

  // Changes what the streams of a method get from here on, open ones and later ones.
  void setFeed(const Simulator& simulator, Method method, Feed feed);

  // Whether streams of the method get what they should: no fault that lasts replaces it.
  bool isFeeding(Method method) const;

  // Sends the current signals to a stream that gets signals. Skips a stream that has not taken its
  // last messages yet: it would only get values that are out of date.
  void play(Call& call);

  // The moment, past or future, at which the stream has been quiet for `time`. Nothing if the
  // stream is busy or does not get signals.
  std::optional<Clock::time_point> quietFor(const Call& call, Clock::duration time) const;

  void opened(const std::shared_ptr<Call>& call) override;
  void sent(const Call& call, std::uint64_t count) override;
  void closed(const Call& call, bool cancelled) override;

 private:
  Feed feedOf(Method method) const { return feeds_[static_cast<std::size_t>(method)]; }
  std::vector<std::string> messagesNow(Method method) const;
  // Call this with the mutex locked.
  void sendNow(Call& call);
  void flood(Call& call) const;

  const PlayerSettings& settings_;
  const Report& report_;
  EngineAnswers& answers_;
  Delivery delivery_;
  const Signals signals_;
  const Clock::time_point begin_ = Clock::now();

  mutable std::mutex mutex_;  // protects the feeds; locked also while sending what they call for
  std::array<Feed, 2> feeds_{Feed::Signals, Feed::Signals};

  mutable std::mutex timesMutex_;  // protects all below
  std::map<const Call*, Clock::time_point> lastSent_;
};

// Sends a method's signals to all its open streams at its rate, on a thread of its own. The
// destructor ends the thread and waits for it. At rate 0 there is no thread.
class Ticker {
 public:
  // `player` and `simulator` are borrowed for the Ticker's life.
  Ticker(const PlayerSettings& settings, Player& player, const Simulator& simulator, Method method);
  Ticker(const Ticker&) = delete;
  Ticker& operator=(const Ticker&) = delete;

 private:
  void run(const std::stop_token& stop, std::chrono::steady_clock::duration period);
  void tick();

  Player& player_;
  const Simulator& simulator_;
  const Method method_;
  std::jthread thread_;
};

// Sends an empty Meter on each stream that has been quiet for `seconds`. It runs on the loop's
// thread, and borrows everything until the loop has stopped.
class Heartbeat {
 public:
  Heartbeat(boost::asio::io_context& loop, double seconds, Player& player,
            const Simulator& simulator);

 private:
  void beat();

  const std::chrono::steady_clock::duration period_;
  Player& player_;
  const Simulator& simulator_;
  boost::asio::steady_timer timer_;
};

}  // namespace sim
