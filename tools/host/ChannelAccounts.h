// gRPC's own accounts of the channels in this process (channelz): each channel's target, the state
// of its connection, and its calls. The loaded module shares gRPC's library with this program, so
// its channels are among them. A module with another gRPC, or with channelz switched off, has none.
//
// Any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace host {

using WallTime = std::chrono::system_clock::time_point;

// As gRPC defines the states of a channel.
enum class ChannelState { Idle, Connecting, Ready, TransientFailure, Shutdown };

struct ChannelAccount {
  std::int64_t number = 0;  // rises in the order in which the channels were made
  std::string target;
  ChannelState state = ChannelState::Idle;
  WallTime since;                      // when it entered this state
  std::optional<WallTime> lastFailed;  // the latest attempt to connect that failed
  bool wasReady = false;               // at some moment that gRPC still remembers
  bool isUnresolved = false;           // the target's name has no address
};

// Those that exist now, oldest first.
std::vector<ChannelAccount> channelAccounts();

// Reads one answer of channelz, in JSON. Skips what it does not understand.
std::vector<ChannelAccount> channelsIn(std::string_view json);

}  // namespace host
