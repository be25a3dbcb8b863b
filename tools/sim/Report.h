// What a playing simulator reports: events as lines of text on standard output and a log on
// standard error, or everything as JSON on standard output, one object per line. The manual
// shows every line. A control interface gets the same events, through the journal.
//
// Any thread; each line is written whole and at once.
// Ownership: the journal is borrowed.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "tools/sim/FaultPlan.h"
#include "tools/sim/Simulator.h"

namespace sim {

class Journal;

// What happens to a fault.
enum class FaultEvent { Begun, Over };

// What happens to a replay. With --loop, it begins again and again.
enum class ReplayEvent { Begun, Over };

class Report {
 public:
  // Without a journal, nothing is kept.
  explicit Report(bool json, Journal* journal = nullptr) : json_(json), journal_(journal) {}

  // The names of all events that the journal gets.
  static std::vector<std::string> eventNames();

  void listening(const Addresses& addresses) const;
  // Where a service, or the control interface, listens. The journal does not get this.
  void listening(std::string_view service, const std::string& address) const;

  // The parameters of a SetParams call, one line each.
  void params(const Opening& opening) const;

  // A stream has opened or closed.
  void opened(const Opening& opening) const;
  void closed(const Opening& opening, bool cancelled) const;

  // A replay begins, or it has reached its end.
  void replay(ReplayEvent event) const;

  // `seconds`: the planned moment, since the start.
  void fault(FaultEvent event, double seconds, const Fault& fault, Subject subject) const;

 private:
  // Keeps an event, and prints it if all output is JSON. Otherwise the caller prints its text.
  void tell(const nlohmann::ordered_json& event) const;

  const bool json_;
  Journal* const journal_;
};

}  // namespace sim
