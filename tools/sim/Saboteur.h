// Carries out planned and live faults, and reports each as it begins and ends.
//
// Threads: the one that runs the loop. Constructor and destructor run while the loop does not.
// Ownership: it borrows everything, the plan and the targets included.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "tools/sim/FaultPlan.h"
#include "tools/sim/FaultSite.h"
#include "tools/sim/Report.h"

namespace sim {

class Saboteur {
 public:
  // The plan's times count from here.
  Saboteur(boost::asio::io_context& loop, const FaultPlan& plan, const FaultTargets& targets,
           const Report& report);
  Saboteur(const Saboteur&) = delete;
  Saboteur& operator=(const Saboteur&) = delete;

  // Makes a fault happen at once, whatever its times say, unless chance is against it.
  void strike(const Fault& fault);

 private:
  using Clock = std::chrono::steady_clock;

  // A fault of the plan, waiting for its next moment.
  struct Planned {
    const Fault& fault;
    FaultMoments moments;
    boost::asio::steady_timer timer;
  };

  // A fault that lasts. Its timer, if set, ends it.
  struct Lasting {
    Fault fault;
    boost::asio::steady_timer timer;
    unsigned number;  // unique: a timer may fire after another fault has taken its place
  };
  using Place = std::pair<FaultGroup, Subject>;

  // Waits for the fault's next moment. It schedules the moment after that before it acts, so that
  // even a fault that can't be carried out comes again.
  void schedule(Planned& planned);
  void happen(const Fault& fault, double seconds);
  void begin(const Fault& fault, Subject subject, double seconds);
  void keepUp(const Fault& fault, Subject subject, double seconds);
  // Ends the lasting fault at this place, if there is one.
  void end(const Place& place, double seconds);
  void endAll(Subject subject, double seconds);

  bool isServed(const Fault& fault, Subject subject);
  Clock::time_point momentAt(double seconds) const;

  boost::asio::io_context& loop_;
  FaultTargets targets_;
  const Report& report_;
  const Clock::time_point begin_ = Clock::now();
  std::size_t strikes_ = 0;  // so far
  std::vector<std::unique_ptr<Planned>> plan_;
  std::map<Place, Lasting> lasting_;
  unsigned lastNumber_ = 0;
};

}  // namespace sim
