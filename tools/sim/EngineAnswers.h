// How SetParams calls are answered: as a rule at once and with nothing in it, and otherwise as a
// fault has it.
//
// Threads: any.
// Ownership: it shares in the calls that it leaves unanswered or answers later. The loop is
// borrowed: it runs what is answered later.
#pragma once

#include <grpcpp/support/status.h>

#include <asio/io_context.hpp>
#include <memory>
#include <mutex>
#include <vector>

#include "tools/sim/Simulator.h"

namespace sim {

struct AnswerManner {
  bool replies = true;  // false: the call is left unanswered until the next manner
  double delay = 0;     // seconds
  grpc::StatusCode status = grpc::StatusCode::OK;
  bool readable = true;  // false: the message can't be parsed
};

class EngineAnswers {
 public:
  explicit EngineAnswers(asio::io_context& loop) : loop_(loop) {}

  // From now on. What was left unanswered is answered, if the new manner replies.
  void change(const AnswerManner& manner);

  void take(const std::shared_ptr<Call>& call);

  // Nobody waits for an answer to it any more.
  void closed(const Call& call);

 private:
  // The mutex is held.
  void answer(const std::shared_ptr<Call>& call);

  asio::io_context& loop_;
  std::mutex mutex_;  // of all below
  AnswerManner manner_;
  std::vector<std::shared_ptr<Call>> unanswered_;
};

}  // namespace sim
