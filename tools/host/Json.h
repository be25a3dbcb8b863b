// How slots, notifications and log lines look to programs: the same in --json, in /api/slots and in
// the live page's events. Any thread.
//
// A float is written in the shortest form that reads back the same, and as the string "nan", "inf"
// or "-inf" where JSON has no number for it. Bytes that are not UTF-8 are replaced when written:
// use `textOf`.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "standin/Host.h"
#include "tools/host/RunningModule.h"
#include "tools/host/SlotBoard.h"

namespace host {

nlohmann::json jsonOf(const standin::SlotValue& value);

// {"set","type","name","key","value","age","moved"}: the age in seconds, since the value changed or
// since the start.
nlohmann::json jsonOf(const SlotLabel& label, const SlotState& state, Clock::time_point now);

// {"number","time","changes":[{"name","value"}...]}: the time in seconds since 1970.
nlohmann::json jsonOf(const Notification& notification);

// {"time","level","file","line","text"}
nlohmann::json jsonOf(const standin::LogLine& line);

// One line of text.
std::string textOf(const nlohmann::json& json);

}  // namespace host
