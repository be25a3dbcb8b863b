#include "tools/host/ChannelAccounts.h"

#include <grpc/grpc.h>
#include <grpc/support/alloc.h>

#include <array>
#include <charconv>
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>
#include <utility>

namespace host {
namespace {

using Json = nlohmann::json;

struct StateName {
  std::string_view name;
  ChannelState state;
};

constexpr std::array<StateName, 5> stateNames{
    {{"IDLE", ChannelState::Idle},
     {"CONNECTING", ChannelState::Connecting},
     {"READY", ChannelState::Ready},
     {"TRANSIENT_FAILURE", ChannelState::TransientFailure},
     {"SHUTDOWN", ChannelState::Shutdown}}};

std::optional<ChannelState> stateCalled(std::string_view name) {
  for (const auto& row : stateNames) {
    if (row.name == name) return row.state;
  }
  return std::nullopt;
}

// The value at a path of members; null if it is not there.
Json at(const Json& json, const char* path) {
  const Json::json_pointer pointer(path);
  return json.contains(pointer) ? json[pointer] : Json();
}

// Empty if there is no text at the path.
std::string textAt(const Json& json, const char* path) {
  const Json value = at(json, path);
  return value.is_string() ? value.get<std::string>() : "";
}

// Reads a time such as "2026-11-22T09:44:47.774838973Z".
std::optional<WallTime> timeIn(const std::string& text) {
  std::tm parts{};
  double seconds = 0;
  const int read = std::sscanf(text.c_str(), "%d-%d-%dT%d:%d:%lfZ", &parts.tm_year, &parts.tm_mon,
                               &parts.tm_mday, &parts.tm_hour, &parts.tm_min, &seconds);
  if (read != 6) return std::nullopt;
  parts.tm_year -= 1900;
  parts.tm_mon -= 1;
  const auto past = std::chrono::duration<double>(seconds);
  return std::chrono::system_clock::from_time_t(timegm(&parts)) +
         std::chrono::duration_cast<WallTime::duration>(past);
}

// Follows the events that gRPC remembers, oldest first. It repeats a state each time that it tries
// again.
void followTrace(const Json& channel, ChannelAccount& account) {
  constexpr std::string_view change = "Channel state change to ";
  constexpr std::string_view resolution = "Resolution event: ";
  std::optional<ChannelState> state;
  for (const Json& event : at(channel, "/data/trace/events")) {
    const std::string what = textAt(event, "/description");
    const auto time = timeIn(textAt(event, "/timestamp"));
    if (what.starts_with(resolution)) {
      account.isUnresolved = what.find("DNS resolution failed") != what.npos;
    }
    if (!what.starts_with(change) || !time) continue;
    const auto next = stateCalled(std::string_view(what).substr(change.size()));
    if (next != std::exchange(state, next)) account.since = *time;
    if (next == ChannelState::Ready) account.wasReady = true;
    if (next == ChannelState::TransientFailure) account.lastFailed = *time;
  }
}

// Without a state, the channel has never left the idle one.
std::optional<ChannelAccount> accountOf(const Json& channel) {
  ChannelAccount account;
  const std::string number = textAt(channel, "/ref/channelId");
  const char* const end = number.data() + number.size();
  if (number.empty() || std::from_chars(number.data(), end, account.number).ptr != end) {
    return std::nullopt;
  }
  account.target = textAt(channel, "/data/target");
  account.state = stateCalled(textAt(channel, "/data/state/state")).value_or(ChannelState::Idle);
  account.since = timeIn(textAt(channel, "/data/trace/creationTimestamp")).value_or(WallTime());
  followTrace(channel, account);
  return account;
}

}  // namespace

std::vector<ChannelAccount> channelsIn(std::string_view json) {
  const Json answer = Json::parse(json, nullptr, false);
  std::vector<ChannelAccount> accounts;
  for (const Json& channel : at(answer, "/channel")) {
    if (auto account = accountOf(channel)) accounts.push_back(std::move(*account));
  }
  return accounts;
}

// gRPC answers with a page of channels from a number on; an empty page is the end.
std::vector<ChannelAccount> channelAccounts() {
  std::vector<ChannelAccount> all;
  for (std::int64_t from = 0;;) {
    char* const answer = grpc_channelz_get_top_channels(from);
    if (answer == nullptr) return all;
    const auto page = channelsIn(answer);
    gpr_free(answer);
    if (page.empty()) return all;
    all.insert(all.end(), page.begin(), page.end());
    from = page.back().number + 1;
  }
}

}  // namespace host
