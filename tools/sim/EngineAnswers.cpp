#include "tools/sim/EngineAnswers.h"

#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <utility>

namespace sim {
namespace {

void reply(Call& call, const AnswerManner& manner) {
  if (manner.status == grpc::StatusCode::OK) call.send(manner.readable ? "" : "\xff");
  call.end(manner.status);
}

}  // namespace

void EngineAnswers::change(const AnswerManner& manner) {
  const std::lock_guard lock(mutex_);
  manner_ = manner;
  if (!manner_.replies) return;
  for (const auto& call : std::exchange(unanswered_, {})) answer(call);
}

void EngineAnswers::take(const std::shared_ptr<Call>& call) {
  const std::lock_guard lock(mutex_);
  if (manner_.replies) {
    answer(call);
  } else {
    unanswered_.push_back(call);
  }
}

void EngineAnswers::closed(const Call& call) {
  const std::lock_guard lock(mutex_);
  std::erase_if(unanswered_, [&](const auto& each) { return each.get() == &call; });
}

void EngineAnswers::answer(const std::shared_ptr<Call>& call) {
  if (manner_.delay <= 0) return reply(*call, manner_);
  const std::chrono::duration<double> delay(manner_.delay);
  const auto timer = std::make_shared<boost::asio::steady_timer>(
      loop_, std::chrono::ceil<std::chrono::nanoseconds>(delay));
  timer->async_wait(
      [timer, call, manner = manner_](boost::system::error_code) { reply(*call, manner); });
}

}  // namespace sim
