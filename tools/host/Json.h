// A running module as JSON: the same in --json, in the live page's answers and in its events. Any
// thread.
//
// Moments are seconds since 1970. Write it with tools::jsonText: names, keys and texts can hold
// bytes that are not UTF-8.
#pragma once

#include <chrono>
#include <cstddef>
#include <nlohmann/json.hpp>
#include <string_view>
#include <vector>

#include "standin/Host.h"
#include "tools/host/LogBook.h"
#include "tools/host/RunningModule.h"
#include "tools/host/SlotBoard.h"
#include "tools/host/ValueHistory.h"

namespace host {

double secondsSince1970(std::chrono::system_clock::time_point time);

// {"set","type","name","key","value","age","moved","changes"}: the age is in seconds, since the
// value changed or since the start.
nlohmann::json jsonOf(const SlotLabel& label, const SlotState& state, Clock::time_point now);

// {"link","state","words","target","connected","since","attempts","succeeded","failed","messages",
// "rate","lastMessage"}: `since` is the age of the state and `lastMessage` that of the latest
// message, in seconds; null if there was none.
nlohmann::json jsonOf(const Link& link, Clock::time_point now);

// All links, as above.
nlohmann::json linksOf(const RunningModule& module);

// {"number","state","reason"}: the state is "unknown", "waiting", "answered" or "failed".
nlohmann::json jsonOf(unsigned number, const Delivery& delivery);

// {"number","time","changes":[{"name","value"}...],"delivery"}: the delivery as above, without the
// number.
nlohmann::json jsonOf(const Notification& notification);

// {"time","level","file","line","text"}
nlohmann::json jsonOf(const standin::LogLine& line);

// {"name","config","module","targets":{"meters","engine"},"version","time","startTime","uptime",
//  "links","slots":{"fast","slow","engine"},"changes","notifications","logLines":{"trace",
//  "network","fault","error"}}: the uptime is in seconds.
nlohmann::json statusOf(const RunningModule& module, const LogBook& log);

// {"ready","links"}: whether each stream in use has received a message lately, and all links.
nlohmann::json readinessOf(const RunningModule& module);

// {"time","slots":[...]}, each slot as above.
nlohmann::json slotsOf(const RunningModule& module);

// {"time","span","gaps":[[from,to]...],
// "slots":[{"index","set","name","period","times","last","low","high"}...]}: the histories of
// slots, by their indices, as ValueHistory::trace returns them. The last four are arrays, one item
// per point. `period`, and `span`, which is the longest history, are in seconds. All slots together
// have about `historyPoints` points. Throws std::invalid_argument for a slot that has no
// history.
inline constexpr std::size_t historyPoints = 12000;
nlohmann::json historyOf(const std::vector<SlotLabel>& labels, const ValueHistory& history,
                         const std::vector<std::size_t>& slots, Clock::duration window);

// Reads {"changes":[{"name","value"}...]}, where a value is a text or a number. Throws
// std::invalid_argument, which says what would be right.
std::vector<Change> changesIn(std::string_view json);

}  // namespace host
