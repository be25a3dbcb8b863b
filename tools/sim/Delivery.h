// Sends the messages of streams, some of which faults lose or delay. Without a fault each message
// goes out at once.
//
// Threads: any.
// Ownership: it shares ownership of the streams between `opened` and `closed`. It borrows the loop,
// which runs delayed sends.
#pragma once

#include <grpcpp/support/status.h>

#include <array>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "tools/sim/Call.h"
#include "tools/sim/Chance.h"

namespace sim {

class Delivery {
 public:
  // The most bytes that a delay may hold back per stream. Beyond that, messages are dropped.
  static constexpr std::size_t waitingLimit = std::size_t{64} << 20;

  // `seed` decides what is left to chance.
  Delivery(boost::asio::io_context& loop, std::uint64_t seed) : loop_(loop), seed_(seed) {}
  Delivery(const Delivery&) = delete;
  Delivery& operator=(const Delivery&) = delete;

  // From here on, loses messages of the streams of a method; nullopt ends that.
  void setLoss(Method method, const std::optional<Loss>& loss);

  // From here on, delays messages of all streams; nullopt ends that. Messages that wait already are
  // sent at their times, and later messages after them.
  void setDelay(const std::optional<Delay>& delay);

  // Call these when a stream opens and closes. Nothing is sent before or after.
  void opened(const std::shared_ptr<Call>& call);
  void closed(const Call& call);

  void send(const Call& call, std::string message);

  // Ends the stream once everything sent before has gone out.
  void end(const Call& call, const grpc::Status& status);

  // Drops all messages that wait.
  void drop();

 private:
  using Clock = std::chrono::steady_clock;

  // A message that waits, or the end.
  struct Waiting {
    Clock::time_point due;
    std::string message;
    std::optional<grpc::Status> end{};
  };

  struct Stream {
    std::shared_ptr<Call> call;
    boost::asio::steady_timer timer;
    std::uint64_t number = 0;     // of messages so far, lost ones included
    std::uint64_t lostTo = 0;     // the number of the last message of a burst
    std::deque<Waiting> queue{};  // their times never decrease
    std::size_t waitingBytes = 0;
    std::uint64_t dropped = 0;  // since a message last had room
  };

  // Call these with the mutex locked.
  Stream* find(const Call& call);
  bool isLost(Stream& stream) const;
  Clock::time_point dueTime(const Stream& stream) const;
  bool hasRoom(Stream& stream, std::size_t size) const;
  void wait(Stream& stream, Waiting waiting);
  void arm(Stream& stream);

  void sendDue(const Call* call);

  boost::asio::io_context& loop_;
  const std::uint64_t seed_;

  std::mutex mutex_;  // protects all below; locked also while sending, which keeps the order
  std::array<std::optional<Loss>, 2> losses_{};  // of fast and slow streams
  std::optional<Delay> delay_;
  std::map<const Call*, Stream> streams_;
};

}  // namespace sim
