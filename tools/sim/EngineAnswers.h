// Answers SetParams calls: at once and with an empty message, unless a fault changes this manner.
//
// Threads: any.
// Ownership: it shares ownership of calls that it has not answered yet. It borrows the loop, which
// runs delayed answers.
#pragma once

#include <grpcpp/support/status.h>

#include <boost/asio/io_context.hpp>
#include <memory>
#include <mutex>
#include <vector>

#include "tools/sim/Simulator.h"

namespace sim {

struct AnswerManner {
  bool replies = true;  // false: calls wait until the manner changes
  double delay = 0;     // in seconds
  grpc::StatusCode status = grpc::StatusCode::OK;
  bool readable = true;  // false: the reply can't be parsed
};

class EngineAnswers {
 public:
  explicit EngineAnswers(boost::asio::io_context& loop) : loop_(loop) {}

  // Changes the manner from here on. If the new one replies, it also answers the waiting calls.
  void change(const AnswerManner& manner);

  // Answers a call that has arrived, in the current manner.
  void take(const std::shared_ptr<Call>& call);

  // The call is over and needs no answer.
  void closed(const Call& call);

 private:
  // Call this with the mutex locked.
  void answer(const std::shared_ptr<Call>& call);

  boost::asio::io_context& loop_;
  std::mutex mutex_;  // protects all below
  AnswerManner manner_;
  std::vector<std::shared_ptr<Call>> unanswered_;
};

}  // namespace sim
