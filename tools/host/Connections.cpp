#include "tools/host/Connections.h"

#include <algorithm>

namespace host {
namespace {

using standin::SlotSet;

constexpr std::chrono::milliseconds readingPeriod{250};
constexpr std::array<std::string_view, 3> methods{"/sonalith.grpc.Meters/GetMetersFast",
                                                  "/sonalith.grpc.Meters/GetMetersSlow",
                                                  "/sonalith.grpcengine.Engine/SetParams"};

std::array<std::string, 3> targetsOf(const gateway::ConfigManager& config) {
  return {config.enableFastMeters ? config.metersTarget : "",
          config.enableSlowMeters ? config.metersTarget : "", config.engineTarget};
}

// The streams share a channel, which the module makes first. The engine service has one of its own,
// even at the same target.
std::optional<ChannelAccount> channelFor(const std::vector<ChannelAccount>& channels, SlotSet set,
                                         const std::string& target) {
  const auto is = [&](const ChannelAccount& channel) { return channel.target == target; };
  if (set == SlotSet::Engine) {
    const auto last = std::find_if(channels.rbegin(), channels.rend(), is);
    return last == channels.rend() ? std::nullopt : std::optional(*last);
  }
  const auto first = std::find_if(channels.begin(), channels.end(), is);
  return first == channels.end() ? std::nullopt : std::optional(*first);
}

}  // namespace

Connections::Connections(const gateway::ConfigManager& config, const CallWatch* calls)
    : calls_(calls), targets_(targetsOf(config)) {
  const auto now = std::chrono::steady_clock::now();
  for (std::size_t i = 0; i < links_.size(); ++i) {
    Link start;
    start.set = SlotSet{static_cast<int>(i)};
    start.since = now;
    links_[i] = next(start, {now, std::chrono::system_clock::now(), targets_[i], {}, {}});
  }
}

void Connections::sample(std::chrono::steady_clock::time_point now) {
  if (now < nextReading_ || calls_ == nullptr) return;
  nextReading_ = now + readingPeriod;
  const auto channels = channelAccounts();
  const std::lock_guard lock(mutex_);
  for (std::size_t i = 0; i < links_.size(); ++i) {
    links_[i] =
        next(links_[i], {now, std::chrono::system_clock::now(), targets_[i],
                         channelFor(channels, links_[i].set, targets_[i]), account(methods[i])});
  }
}

std::optional<CallAccount> Connections::account(std::string_view method) const {
  auto account = calls_->account(method);
  if (!account) return account;
  if (account->lastMessage && *account->lastMessage < start_) account->lastMessage.reset();
  if (account->lastEnd && account->lastEnd->time < start_) account->lastEnd.reset();
  return account;
}

Links Connections::links() const {
  const std::lock_guard lock(mutex_);
  return links_;
}

}  // namespace host
