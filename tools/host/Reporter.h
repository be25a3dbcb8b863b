// What `gatewayctl host` writes: results on standard output, as text for people or as JSON lines
// for programs, and log lines and errors on standard error.
//
// Text shows a control character of a string as \x and two digits.
//
// Any thread. Lines for standard output wait in a queue, so no thread ever waits for their reader:
// if it stops reading, lines are dropped, and a line says how many.
#pragma once

#include <cstddef>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "standin/Host.h"
#include "tools/host/Cycles.h"
#include "tools/host/Expectations.h"
#include "tools/host/LineQueue.h"
#include "tools/host/RunningModule.h"
#include "tools/host/SlotBoard.h"

namespace host {

class Reporter {
 public:
  explicit Reporter(bool json);

  // text: nothing; JSON: {"event":"started","module","config","meters_target","engine_target",
  // "slots"}
  void started(const RunningModule& module) const;
  // text: reloaded CONFIG: 3 slots, 1 changed, and a line for each change
  // JSON: {"event":"reloaded", the members of "started", "changes":[what jsonOf gives...]}
  void reloaded(const RunningModule& module, const std::vector<SlotChange>& changes) const;
  // text: page URL; JSON: {"event":"page","url"}
  void page(const std::string& url) const;
  // text: fast out_level -12.5; JSON: {"event":"slot", and what jsonOf gives}
  void slotChanged(const SlotLabel& label, const SlotState& state, Clock::time_point now) const;
  // The board's slots of these indices. text: a table; JSON: {"event":"slots","slots":[...]}
  void slots(const SlotBoard& board, const std::vector<std::size_t>& indices) const;
  // text: notification 3 out_gain -6.5; JSON: {"event":"notification", and what jsonOf gives}
  void notified(const Notification& notification) const;
  // text: expected out_level in -60..0 within 5s: met after 0.3 s, -23.4
  // JSON: {"event":"expectation","text","met","seconds","value"}
  void decided(const Expectations::Outcome& outcome) const;
  // What became of a notification, once that is known. text: notification 3 answered; JSON:
  // {"event":"delivery", and what jsonOf gives}
  void delivered(unsigned number, const Delivery& delivery) const;
  // text: link fast: receiving 20 messages/s; JSON: {"event":"link", and what jsonOf gives}
  void linkChanged(const Link& link, Clock::time_point now) const;
  // JSON: {"event":"help","text"}
  void help(const std::string& text) const;
  // text: a table; JSON: what jsonOf gives
  void cycles(const CyclesReport& report) const;
  // Ends the output: what waits is written, unless the reader takes nothing. Call nothing that
  // prints afterwards.
  void finish() const { output_->finish(); }
  // Whether output is lost because standard output can't be written.
  bool hasFailed() const { return output_->failed(); }
  // Standard error: gatewayctl: TEXT; JSON, in addition: {"event":"error","text"}
  void complain(const std::string& text) const;

 private:
  void print(const std::string& line) const;
  void printEvent(std::string_view event, nlohmann::json fields) const;

  const bool json_;
  const std::unique_ptr<LineQueue> output_;
};

// Prints a log line to standard error, with time, level and source; with colours if showsColours
// allows it.
void printLog(const standin::LogLine& line);

// An age for people: "0.3 s", "45 s", "12 min", "3 h", "5 d".
std::string ageText(Clock::duration age);

}  // namespace host
