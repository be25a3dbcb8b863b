#include "tools/sim/Replay.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <limits>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "tools/common/Output.h"
#include "tools/common/StatusName.h"

namespace sim {
namespace {

using recording::Kind;
using recording::Reader;
using recording::Record;

std::uint64_t microseconds(double seconds) {
  return static_cast<std::uint64_t>(std::llround(seconds * 1e6));
}

std::optional<Method> methodOf(recording::Stream stream) {
  switch (stream) {
    case recording::Stream::Fast:
      return Method::Fast;
    case recording::Stream::Slow:
      return Method::Slow;
    case recording::Stream::Engine:
      break;
  }
  return std::nullopt;
}

bool isMessage(const Record& record) {
  return record.kind == Kind::Message && methodOf(record.stream);
}

grpc::Status statusOf(const Record& record) {
  const auto [number, text] = recording::endIn(record.content);
  const auto code = static_cast<grpc::StatusCode>(number);
  return {tools::nameOf(code) ? code : grpc::StatusCode::UNKNOWN, std::string(text)};
}

void requireRegular(const std::string& file) {
  std::error_code error;
  const auto status = std::filesystem::status(file, error);
  const bool isOther = std::filesystem::exists(status) && !is_regular_file(status);
  if (file != "-" && !isOther) return;
  throw std::runtime_error(
      fmt::format("can't replay {}: it is not a regular file, and a replay reads it twice", file));
}

// The clock can't hold ten times as much.
void requireShort(const ReplaySettings& settings, const ReplayPlan& plan) {
  constexpr double mostSeconds = 1e9;
  if (static_cast<double>(plan.to - plan.from) / 1e6 / settings.speed <= mostSeconds) return;
  throw std::runtime_error(
      fmt::format("{} would take more than {:.0f} seconds to replay. Choose another --from, --to "
                  "or --speed, or another recording",
                  settings.file, mostSeconds));
}

}  // namespace

ReplayPlan planOf(const ReplaySettings& settings) try {
  requireRegular(settings.file);
  Reader reader(recording::fileSource(settings.file));
  ReplayPlan plan{.from = microseconds(settings.from)};
  const std::uint64_t to =
      settings.to ? microseconds(*settings.to) : std::numeric_limits<std::uint64_t>::max();
  std::uint64_t length = 0;
  try {
    while (const auto record = reader.next()) {
      length = record->time;
      const bool isIn = record->time >= plan.from && record->time <= to;
      if (isIn && isMessage(*record)) ++plan.messages;
    }
  } catch (const recording::Cut& cut) {
    tools::say("sim", fmt::format("warning: {}: {}", settings.file, cut.what()));
  }
  plan.to = std::min(to, length);
  if (plan.messages == 0 || plan.to <= plan.from) {
    throw std::runtime_error(
        fmt::format("{} has no messages from {} to {} seconds: it is {:.3f} seconds long. Choose "
                    "another --from and --to, or another recording",
                    settings.file, settings.from, static_cast<double>(plan.to) / 1e6,
                    static_cast<double>(length) / 1e6));
  }
  requireShort(settings, plan);
  return plan;
} catch (const recording::Damaged& damaged) {
  throw std::runtime_error(fmt::format("{}: {}", settings.file, damaged.what()));
}

void Replayer::Track::startKeeping(std::uint64_t time) {
  stopKeeping();
  begin = time;
  isKeeping = true;
}

void Replayer::Track::stopKeeping() {
  isKeeping = false;
  missed = {};
  missedBytes = 0;
}

void Replayer::Track::keep(const Record& record) {
  if (!isKeeping) return;
  missedBytes += record.content.size();
  if (record.time > begin + joinPeriod || missedBytes > joinLimit) return stopKeeping();
  missed.emplace_back(record.content);
}

Replayer::Replayer(const ReplaySettings& settings, const ReplayPlan& plan, Player& player,
                   const Report& report)
    : settings_(settings),
      plan_(plan),
      player_(player),
      report_(report),
      thread_([this](const std::stop_token& stop) { run(stop); }) {}

void Replayer::opened(const std::shared_ptr<Call>& call) {
  player_.opened(call);
  const Method method = call->opening().method;
  if (method == Method::SetParams) return;
  const std::lock_guard lock(mutex_);
  if (!firstOpened_) firstOpened_ = Clock::now();
  auto& track = trackOf(method);
  auto& client = track.clients.emplace_back(Client{call});
  changed_.notify_all();
  // Even if no record has come since.
  if (begin_ && Clock::now() > momentOf(*begin_, track.begin + joinPeriod)) track.stopKeeping();
  if (!player_.isFeeding(method)) return;
  for (const auto& message : track.missed) sendTo(client, message);
}

void Replayer::closed(const Call& call, bool cancelled) {
  player_.closed(call, cancelled);
  const Method method = call.opening().method;
  if (method == Method::SetParams) return;
  const std::lock_guard lock(mutex_);
  std::erase_if(trackOf(method).clients,
                [&](const Client& client) { return client.call.get() == &call; });
}

void Replayer::run(const std::stop_token& stop) {
  Clock::time_point begin;
  {
    std::unique_lock lock(mutex_);
    if (!changed_.wait(lock, stop, [&] { return firstOpened_.has_value(); })) return;
    begin = *firstOpened_;
  }
  do {
    report_.replay(ReplayEvent::Begun);
    try {
      if (!replayOnce(begin, stop)) return;
    } catch (const std::exception& error) {
      return tools::say("sim", fmt::format("the replay ends: {}", error.what()));
    }
    begin = momentOf(begin, plan_.to);
  } while (settings_.loop);
  report_.replay(ReplayEvent::Over);
}

bool Replayer::replayOnce(Clock::time_point begin, const std::stop_token& stop) {
  Reader reader(recording::fileSource(settings_.file));
  {
    const std::lock_guard lock(mutex_);
    begin_ = begin;
    for (auto& track : tracks_) track.startKeeping(plan_.from);
  }
  try {
    while (const auto record = reader.next()) {
      if (record->time < plan_.from) continue;
      if (record->time > plan_.to) break;
      if (!waitUntil(momentOf(begin, record->time), stop)) return false;
      perform(*record);
    }
  } catch (const recording::Cut&) {
    // planOf has warned about it.
  }
  return waitUntil(momentOf(begin, plan_.to), stop);
}

Replayer::Clock::time_point Replayer::momentOf(Clock::time_point begin, std::uint64_t time) const {
  const std::chrono::duration<double, std::micro> since(static_cast<double>(time - plan_.from) /
                                                        settings_.speed);
  return begin + std::chrono::duration_cast<Clock::duration>(since);
}

// Returns false if the replay is stopped.
bool Replayer::waitUntil(Clock::time_point moment, const std::stop_token& stop) {
  if (Clock::now() < moment) {
    std::unique_lock lock(mutex_);
    changed_.wait_until(lock, stop, moment, [] { return false; });
  }
  return !stop.stop_requested();
}

void Replayer::perform(const Record& record) {
  const auto method = methodOf(record.stream);
  if (!method) return;
  const std::lock_guard lock(mutex_);
  Track& track = trackOf(*method);
  switch (record.kind) {
    case Kind::Started:
      return track.startKeeping(record.time);
    case Kind::Message:
      return send(track, *method, record);
    case Kind::Ended:
      return end(track, record);
    case Kind::Opened:
    case Kind::Reply:
    case Kind::Lost:
    case Kind::Closed:
      return;
  }
}

void Replayer::send(Track& track, Method method, const Record& record) {
  track.keep(record);
  if (track.clients.empty() || !player_.isFeeding(method)) return;
  const std::string message(record.content);
  for (auto& client : track.clients) sendTo(client, message);
}

// However slowly a client reads, what waits for it is bounded.
void Replayer::sendTo(Client& client, const std::string& message) {
  const auto& opening = client.call->opening();
  const auto name = fmt::format("{} {}", nameOf(opening.method), opening.number);
  if (client.call->waitingBytes() > waitingLimit) {
    if (client.skipped++ == 0) {
      tools::say("sim", fmt::format("{} reads too slowly, and misses messages from here on", name));
    }
    return;
  }
  player_.delivery().send(*client.call, message);
  if (client.skipped == 0) return;
  tools::say("sim", fmt::format("{} reads again; it has missed {} messages", name,
                                std::exchange(client.skipped, 0)));
}

void Replayer::end(Track& track, const Record& record) {
  track.stopKeeping();
  for (auto& client : track.clients) player_.delivery().end(*client.call, statusOf(record));
}

}  // namespace sim
