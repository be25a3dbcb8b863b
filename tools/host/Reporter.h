// What `gatewayctl host` writes: results on standard output, as text for people or as JSON lines
// for programs, and log lines and errors on standard error.
//
// Text shows a control character of a string as \x and two digits.
//
// Any thread; a line is written whole and at once.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "standin/Host.h"
#include "tools/host/RunningModule.h"
#include "tools/host/SlotBoard.h"

namespace host {

class Reporter {
 public:
  explicit Reporter(bool json);

  // text: nothing; JSON: {"event":"started","module","config","meters_target","engine_target",
  // "slots"}
  void started(const RunningModule& module) const;
  // text: page URL; JSON: {"event":"page","url"}
  void page(const std::string& url) const;
  // text: fast out_level -12.5; JSON: {"event":"slot", and what jsonOf gives}
  void slotChanged(const SlotLabel& label, const SlotState& state, Clock::time_point now) const;
  // The board's slots of these indices. text: a table; JSON: {"event":"slots","slots":[...]}
  void slots(const SlotBoard& board, const std::vector<std::size_t>& indices) const;
  // text: notification 3 out_gain -6.5; JSON: {"event":"notification", and what jsonOf gives}
  void notified(const Notification& notification) const;
  // Standard error: gatewayctl: TEXT; JSON, in addition: {"event":"error","text"}
  void complain(const std::string& text) const;
  // Standard error, with time, level and source; coloured on a terminal unless NO_COLOR is set.
  void log(const standin::LogLine& line) const;

 private:
  const bool json_;
  const bool colours_;
};

// An age for people: "0.3 s", "45 s", "12 min", "3 h", "5 d".
std::string ageText(Clock::duration age);

}  // namespace host
