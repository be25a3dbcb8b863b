// Replays a recording: each open stream gets the recorded bytes at the recorded times, and ends as
// the recorded one did.
//
// There is one timeline, for any number of clients. It begins when the first stream opens. A stream
// that opens later joins where the replay is. But for `joinPeriod` after the recorded stream began,
// or began again, a stream that joins also gets what it has missed since then: so every client that
// is there from the beginning gets everything, and so does one that opens its stream again when the
// recorded one did.
//
// Threads: a thread of its own reads the recording and sends. gRPC's threads bring the events of
// calls. Constructor and destructor are for one thread.
// Ownership: it borrows everything else, and shares ownership of the open streams.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include "tools/recording/Reader.h"
#include "tools/sim/Call.h"
#include "tools/sim/Player.h"
#include "tools/sim/Report.h"

namespace sim {

struct ReplaySettings {
  std::string file;  // empty for no replay
  double speed = 1;
  double from = 0;           // seconds of the recording
  std::optional<double> to;  // nothing: up to its end
  bool loop = false;
};

// What a replay is going to send.
struct ReplayPlan {
  std::uint64_t from = 0;  // microseconds of the recording
  std::uint64_t to = 0;    // the same
  std::uint64_t messages = 0;
};

// Reads the recording once, to learn its length and to find damage before anyone listens. Warns on
// standard error about one that is cut off. Throws std::runtime_error, with file and place, for any
// other damage, and if there is nothing to replay, or if it would take too long. The file has to be
// a regular one, since the Replayer reads it again.
ReplayPlan planOf(const ReplaySettings& settings);

class Replayer final : public CallListener {
 public:
  // How long a stream that joins gets what it has missed, in microseconds of the recording.
  static constexpr std::uint64_t joinPeriod = 1000000;
  // What is kept for that, per method. Beyond it, joining streams get only what follows.
  static constexpr std::size_t joinLimit = std::size_t{16} << 20;
  // A stream with more bytes than this still to be written misses messages.
  static constexpr std::size_t waitingLimit = std::size_t{64} << 20;

  // Passes the events of calls on to `player`, whose faults decide whether streams are fed.
  Replayer(const ReplaySettings& settings, const ReplayPlan& plan, Player& player,
           const Report& report);
  ~Replayer() override = default;
  Replayer(const Replayer&) = delete;
  Replayer& operator=(const Replayer&) = delete;

  void opened(const std::shared_ptr<Call>& call) override;
  void sent(const Call& call, std::uint64_t count) override { player_.sent(call, count); }
  void closed(const Call& call, bool cancelled) override;

 private:
  using Clock = std::chrono::steady_clock;

  struct Client {
    std::shared_ptr<Call> call;
    std::uint64_t skipped = 0;  // messages, because it reads too slowly
  };

  // The recorded stream of a method, at the current place.
  struct Track {
    std::vector<Client> clients;
    std::uint64_t begin = 0;  // when the recorded stream began
    bool isKeeping = true;    // what was sent since then is in `missed`
    std::vector<std::string> missed{};
    std::size_t missedBytes = 0;

    void startKeeping(std::uint64_t time);
    void stopKeeping();
    void keep(const recording::Record& record);
  };

  void run(const std::stop_token& stop);
  // Replays the range once. Returns false if it was stopped.
  bool replayOnce(Clock::time_point begin, const std::stop_token& stop);
  Clock::time_point momentOf(Clock::time_point begin, std::uint64_t time) const;
  bool waitUntil(Clock::time_point moment, const std::stop_token& stop);
  void perform(const recording::Record& record);
  // Call these with the mutex locked.
  Track& trackOf(Method method) { return tracks_[method == Method::Fast ? 0 : 1]; }
  void send(Track& track, Method method, const recording::Record& record);
  void sendTo(Client& client, const std::string& message);
  void end(Track& track, const recording::Record& record);

  const ReplaySettings& settings_;
  const ReplayPlan plan_;
  Player& player_;
  const Report& report_;

  std::mutex mutex_;  // protects all below
  std::condition_variable_any changed_;
  std::optional<Clock::time_point> firstOpened_;
  std::optional<Clock::time_point> begin_;  // of the current round
  Track tracks_[2];

  std::jthread thread_;
};

}  // namespace sim
