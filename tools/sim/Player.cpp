#include "tools/sim/Player.h"

#include <algorithm>
#include <condition_variable>

namespace sim {
namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

}  // namespace

Player::Player(const PlayerSettings& settings, const Report& report, EngineAnswers& answers,
               boost::asio::io_context& loop)
    : settings_(settings),
      report_(report),
      answers_(answers),
      delivery_(loop, settings.seed),
      signals_(settings.keys, settings.seed) {}

std::vector<std::string> Player::messagesNow(Method method) const {
  return signals_.metersAt(method, Seconds(Clock::now() - begin_).count(),
                           settings_.valuesPerMessage);
}

void Player::sendNow(Call& call) {
  for (auto& message : messagesNow(call.opening().method)) {
    delivery_.send(call, std::move(message));
  }
}

void Player::flood(Call& call) const {
  call.send(messagesNow(call.opening().method).front(), Call::forever);
}

void Player::setFeed(const Simulator& simulator, Method method, Feed feed) {
  const std::lock_guard lock(mutex_);
  const auto before = std::exchange(feeds_[static_cast<std::size_t>(method)], feed);
  if (before == feed) return;
  for (const auto& call : simulator.openCalls(method)) {
    if (before == Feed::Flood) call->stop();
    if (feed == Feed::Flood) flood(*call);
  }
}

bool Player::isFeeding(Method method) const {
  const std::lock_guard lock(mutex_);
  return feedOf(method) == Feed::Signals;
}

void Player::play(Call& call) {
  const std::lock_guard lock(mutex_);
  if (feedOf(call.opening().method) == Feed::Signals && call.isIdle()) sendNow(call);
}

std::optional<Clock::time_point> Player::quietFor(const Call& call, Clock::duration time) const {
  {
    const std::lock_guard lock(mutex_);
    if (feedOf(call.opening().method) != Feed::Signals || !call.isIdle()) return std::nullopt;
  }
  const std::lock_guard lock(timesMutex_);
  const auto last = lastSent_.find(&call);
  if (last == lastSent_.end()) return std::nullopt;
  return last->second + time;
}

void Player::opened(const std::shared_ptr<Call>& call) {
  const auto& opening = call->opening();
  if (opening.method == Method::SetParams) {
    report_.params(opening);
    answers_.take(call);
    return;
  }
  report_.opened(opening);
  delivery_.opened(call);
  sent(*call, 0);
  const std::lock_guard lock(mutex_);
  const auto feed = feedOf(opening.method);
  if (feed == Feed::Flood) flood(*call);
  if (feed == Feed::Signals && settings_.rateOf(opening.method) > 0) sendNow(*call);
}

void Player::sent(const Call& call, std::uint64_t) {
  if (call.opening().method == Method::SetParams) return;
  const std::lock_guard lock(timesMutex_);
  lastSent_[&call] = Clock::now();
}

void Player::closed(const Call& call, bool cancelled) {
  if (call.opening().method == Method::SetParams) return answers_.closed(call);
  report_.closed(call.opening(), cancelled);
  delivery_.closed(call);
  const std::lock_guard lock(timesMutex_);
  lastSent_.erase(&call);
}

Ticker::Ticker(const PlayerSettings& settings, Player& player, const Simulator& simulator,
               Method method)
    : player_(player), simulator_(simulator), method_(method) {
  const double rate = settings.rateOf(method);
  if (rate <= 0) return;
  const auto period = std::chrono::duration_cast<Clock::duration>(Seconds(1 / rate));
  thread_ = std::jthread([this, period](const std::stop_token& stop) { run(stop, period); });
}

void Ticker::run(const std::stop_token& stop, Clock::duration period) {
  std::mutex mutex;
  std::condition_variable_any wakeUp;
  std::unique_lock lock(mutex);
  for (auto next = Clock::now() + period; !stop.stop_requested();
       next = std::max(next + period, Clock::now())) {
    wakeUp.wait_until(lock, stop, next, [] { return false; });
    if (!stop.stop_requested()) tick();
  }
}

void Ticker::tick() {
  for (const auto& call : simulator_.openCalls(method_)) player_.play(*call);
}

Heartbeat::Heartbeat(boost::asio::io_context& loop, double seconds, Player& player,
                     const Simulator& simulator)
    : period_(std::chrono::ceil<Clock::duration>(Seconds(seconds))),
      player_(player),
      simulator_(simulator),
      timer_(loop) {
  beat();
}

// A stream that needs no heartbeat now may need one soon, so the next look is within one period.
void Heartbeat::beat() {
  const auto now = Clock::now();
  auto next = now + period_;
  for (const auto method : {Method::Fast, Method::Slow}) {
    for (const auto& call : simulator_.openCalls(method)) {
      const auto due = player_.quietFor(*call, period_);
      if (due && *due <= now) player_.delivery().send(*call, "");
      if (due && *due > now) next = std::min(next, *due);
    }
  }
  timer_.expires_at(next);
  timer_.async_wait([this](boost::system::error_code error) {
    if (!error) beat();
  });
}

}  // namespace sim
