#include "tools/sim/Delivery.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "tools/common/Output.h"

namespace sim {
namespace {

std::string streamName(const Opening& opening) {
  return fmt::format("{} {}", nameOf(opening.method), opening.number);
}

}  // namespace

void Delivery::setLoss(Method method, const std::optional<Loss>& loss) {
  const std::lock_guard lock(mutex_);
  losses_[static_cast<std::size_t>(method)] = loss;
  if (loss) return;
  for (auto& [call, stream] : streams_) {
    if (call->opening().method == method) stream.lostTo = 0;
  }
}

void Delivery::setDelay(const std::optional<Delay>& delay) {
  const std::lock_guard lock(mutex_);
  delay_ = delay;
}

void Delivery::opened(const std::shared_ptr<Call>& call) {
  const std::lock_guard lock(mutex_);
  streams_.emplace(call.get(), Stream{call, boost::asio::steady_timer(loop_)});
}

void Delivery::closed(const Call& call) {
  const std::lock_guard lock(mutex_);
  streams_.erase(&call);
}

void Delivery::send(const Call& call, std::string message) {
  const std::lock_guard lock(mutex_);
  auto* const stream = find(call);
  if (stream == nullptr || isLost(*stream)) return;
  if (!delay_ && stream->queue.empty()) {
    stream->call->send(std::move(message));
  } else if (hasRoom(*stream, message.size())) {
    wait(*stream, {dueTime(*stream), std::move(message)});
  }
}

void Delivery::end(const Call& call, const grpc::Status& status) {
  const std::lock_guard lock(mutex_);
  auto* const stream = find(call);
  if (stream == nullptr) return;
  if (!delay_ && stream->queue.empty()) {
    stream->call->end(status);
  } else {
    wait(*stream, {dueTime(*stream), {}, status});
  }
}

void Delivery::drop() {
  const std::lock_guard lock(mutex_);
  for (auto& [call, stream] : streams_) {
    stream.timer.cancel();
    stream.queue.clear();
    stream.waitingBytes = 0;
  }
}

Delivery::Stream* Delivery::find(const Call& call) {
  const auto found = streams_.find(&call);
  return found == streams_.end() ? nullptr : &found->second;
}

// Counts the message, lost or not.
bool Delivery::isLost(Stream& stream) const {
  ++stream.number;
  const auto& opening = stream.call->opening();
  const auto& loss = losses_[static_cast<std::size_t>(opening.method)];
  if (!loss) return false;
  if (stream.number > stream.lostTo) {
    const auto burst =
        loss->burstFrom(fmt::format("{} {}", streamName(opening), stream.number), seed_);
    stream.lostTo = stream.number + burst - 1;
  }
  return stream.number <= stream.lostTo;
}

Delivery::Clock::time_point Delivery::dueTime(const Stream& stream) const {
  auto due = Clock::now();
  if (delay_) {
    due +=
        delay_->of(fmt::format("{} {}", streamName(stream.call->opening()), stream.number), seed_);
  }
  return stream.queue.empty() ? due : std::max(due, stream.queue.back().due);
}

bool Delivery::hasRoom(Stream& stream, std::size_t size) const {
  const auto name = streamName(stream.call->opening());
  if (stream.waitingBytes + size > waitingLimit) {
    if (stream.dropped++ == 0) {
      tools::say("sim", fmt::format("{} loses messages from here on: the delay holds back {} MiB",
                                    name, waitingLimit >> 20));
    }
    return false;
  }
  if (const auto dropped = std::exchange(stream.dropped, 0); dropped > 0) {
    tools::say("sim", fmt::format("{} gets messages again; it has lost {}", name, dropped));
  }
  return true;
}

void Delivery::wait(Stream& stream, Waiting waiting) {
  stream.waitingBytes += waiting.message.size();
  stream.queue.push_back(std::move(waiting));
  if (stream.queue.size() == 1) arm(stream);
}

void Delivery::arm(Stream& stream) {
  stream.timer.expires_at(stream.queue.front().due);
  stream.timer.async_wait([this, call = stream.call.get()](boost::system::error_code error) {
    if (!error) sendDue(call);
  });
}

// The stream may have closed, and another one may have its address by now. Then this sends what
// that one has due, which does no harm.
void Delivery::sendDue(const Call* call) {
  const std::lock_guard lock(mutex_);
  const auto found = streams_.find(call);
  if (found == streams_.end()) return;
  auto& stream = found->second;
  const auto now = Clock::now();
  while (!stream.queue.empty() && stream.queue.front().due <= now) {
    auto next = std::move(stream.queue.front());
    stream.queue.pop_front();
    stream.waitingBytes -= next.message.size();
    if (next.end) {
      stream.call->end(*next.end);
    } else {
      stream.call->send(std::move(next.message));
    }
  }
  if (!stream.queue.empty()) arm(stream);
}

}  // namespace sim
