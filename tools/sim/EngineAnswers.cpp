#include "tools/sim/EngineAnswers.h"

#include <fmt/format.h>

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
  for (const auto& call : std::exchange(unanswered_, {})) settle(call);
}

void EngineAnswers::setDelay(const std::optional<Delay>& delay) {
  const std::lock_guard lock(mutex_);
  delay_ = delay;
}

void EngineAnswers::take(const std::shared_ptr<Call>& call) {
  const std::lock_guard lock(mutex_);
  settle(call);
}

void EngineAnswers::closed(const Call& call) {
  const std::lock_guard lock(mutex_);
  std::erase_if(unanswered_, [&](const auto& each) { return each.get() == &call; });
}

void EngineAnswers::settle(const std::shared_ptr<Call>& call) {
  const bool isStruck =
      happens(manner_.chance, fmt::format("manner of {}", call->opening().number), seed_);
  const auto manner = isStruck ? manner_ : AnswerManner{};
  if (manner.replies) {
    answer(call, manner);
  } else {
    unanswered_.push_back(call);
  }
}

void EngineAnswers::answer(const std::shared_ptr<Call>& call, const AnswerManner& manner) {
  std::chrono::nanoseconds late{};
  if (delay_) late = delay_->of(fmt::format("answer {}", call->opening().number), seed_);
  if (late.count() == 0) return reply(*call, manner);
  const auto timer = std::make_shared<boost::asio::steady_timer>(loop_, late);
  timer->async_wait([timer, call, manner](boost::system::error_code) { reply(*call, manner); });
}

}  // namespace sim
