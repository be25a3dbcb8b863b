#include "tools/sim/Player.h"

#include <fmt/format.h>

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string_view>

#include "engine.pb.h"
#include "tools/sim/EventText.h"

namespace sim {
namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

// Type and value of a parameter, such as "float -6.5".
std::string textOf(const sonalith::grpcengine::AnyValue& value) {
  using Value = sonalith::grpcengine::AnyValue;
  switch (value.value_case()) {
    case Value::kSstring:
      return "string " + escaped(value.sstring());
    case Value::kSfloat:
      return fmt::format("float {}", value.sfloat());
    case Value::kSint:
      return fmt::format("int {}", value.sint());
    case Value::kSuint:
      return fmt::format("uint {}", value.suint());
    case Value::kAfloat:
      return fmt::format("floats {}", fmt::join(value.afloat().data(), " "));
    case Value::kAint:
      return fmt::format("ints {}", fmt::join(value.aint().data(), " "));
    case Value::kAuint:
      return fmt::format("uints {}", fmt::join(value.auint().data(), " "));
    case Value::kSdouble:
      return fmt::format("double {}", value.sdouble());
    case Value::VALUE_NOT_SET:
      break;
  }
  return "nothing";
}

std::string linesOf(const Opening& opening) {
  sonalith::grpcengine::RequestSetParams request;
  if (!request.ParseFromString(opening.request)) {
    return fmt::format("SetParams {} unreadable {}\n", opening.number, hexOf(opening.request));
  }
  std::string lines;
  for (const auto& param : request.params()) {
    lines += fmt::format("SetParams {} {} {}\n", opening.number, escaped(param.key()),
                         textOf(param.value()));
  }
  return lines;
}

void log(const Call& call, std::string_view what) {
  const auto& opening = call.opening();
  fmt::print(stderr, "gatewayctl sim: {} {} {}\n", nameOf(opening.method), opening.number, what);
}

}  // namespace

Player::Player(const PlayerSettings& settings)
    : settings_(settings), signals_(settings.keys, settings.seed) {}

std::string Player::meterNow(Method method) const {
  return signals_.meterAt(method, Seconds(Clock::now() - begin_).count());
}

void Player::opened(const std::shared_ptr<Call>& call) {
  const auto& opening = call->opening();
  if (opening.method == Method::SetParams) {
    fmt::print("{}", linesOf(opening));
    call->send("");
    call->end(grpc::StatusCode::OK);
    return;
  }
  log(*call, "open from " + opening.peer);
  if (settings_.rateOf(opening.method) > 0) call->send(meterNow(opening.method));
}

void Player::closed(const Call& call, bool cancelled) {
  if (call.opening().method != Method::SetParams) log(call, cancelled ? "cancelled" : "ended");
}

Ticker::Ticker(const PlayerSettings& settings, const Player& player, const Simulator& simulator,
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

// A stream that has not taken its last message yet misses this one: values are of the moment.
void Ticker::tick() {
  for (const auto& call : simulator_.openCalls(method_)) {
    if (call->isIdle()) call->send(player_.meterNow(method_));
  }
}

}  // namespace sim
