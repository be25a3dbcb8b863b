// Answers SetParams calls: at once and with an empty message, unless a fault changes this manner.
//
// Threads: any.
// Ownership: it shares ownership of calls that it has not answered yet. It borrows the loop, which
// runs delayed answers.
#pragma once

#include <grpcpp/support/status.h>

#include <boost/asio/io_context.hpp>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "tools/sim/Chance.h"
#include "tools/sim/Simulator.h"

namespace sim {

struct AnswerManner {
  bool replies = true;  // false: calls wait until the manner changes
  grpc::StatusCode status = grpc::StatusCode::OK;
  bool readable = true;  // false: the reply can't be parsed
  double chance = 1;     // of each call to be answered so; others get the usual answer
};

class EngineAnswers {
 public:
  // `seed` decides what is left to chance.
  EngineAnswers(boost::asio::io_context& loop, std::uint64_t seed) : loop_(loop), seed_(seed) {}

  // Changes the manner from here on. If the new one replies, it also answers the waiting calls.
  void change(const AnswerManner& manner);

  // Delays answers from here on; nullopt ends that.
  void setDelay(const std::optional<Delay>& delay);

  // Answers a call that has arrived, in the current manner.
  void take(const std::shared_ptr<Call>& call);

  // The call is over and needs no answer.
  void closed(const Call& call);

 private:
  // Call these with the mutex locked.
  void settle(const std::shared_ptr<Call>& call);
  void answer(const std::shared_ptr<Call>& call, const AnswerManner& manner);

  boost::asio::io_context& loop_;
  const std::uint64_t seed_;
  std::mutex mutex_;  // protects all below
  AnswerManner manner_;
  std::optional<Delay> delay_;
  std::vector<std::shared_ptr<Call>> unanswered_;
};

}  // namespace sim
