// A module that runs in the stand-in host: its slots, and the changes that it is sent.
//
// Threads: made, sampled, reloaded and destroyed by one thread; all else is for any thread.
// Ownership: owns the host, the engine, the module and its one instance. Only one can exist at a
// time, since a process has one host.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "standin/Engine.h"
#include "standin/Host.h"
#include "standin/LoadedModule.h"
#include "tools/host/ConfigWatch.h"
#include "tools/host/Connections.h"
#include "tools/host/SlotBoard.h"
#include "tools/host/SlotChanges.h"

namespace host {

// The module refuses the configuration; its own log lines say why.
struct Refused : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// No change can be set: the module is stopped, for a moment or until its configuration is repaired.
struct NotRunning : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// What to start, and from which files.
struct Setup {
  std::string config;        // path of the configuration file
  std::string module;        // path of the module's file
  std::string name;          // of the instance, at most 31 bytes
  bool watchesCalls = true;  // otherwise the module's links are unknown
  TappedMethod tapped{};     // calls to pass on, if calls are watched
  double readyAge = 10;      // seconds that a stream's latest message may be old
};

// A parameter change as people write it: the type of the slot says how to read the value.
struct Change {
  std::string name;  // of an engine slot
  std::string value;

  bool operator==(const Change&) const = default;
};

// Changes that went to the module together.
struct Notification {
  unsigned number = 0;  // rises from 1
  std::chrono::system_clock::time_point time;
  std::vector<Change> changes;  // values as stored
  Delivery delivery;            // as of the moment when this was asked for
};

// What a module had not returned, and what it had done wrong, when it was stopped.
struct Leftovers {
  standin::Outstanding notReturned;
  std::vector<std::string> violations;  // of the boundary's rules, one sentence each

  bool isClean() const { return notReturned == standin::Outstanding{} && violations.empty(); }
  // A sentence for each; none if it is clean.
  std::vector<std::string> problems() const;
};

class RunningModule {
 public:
  static constexpr std::size_t notificationsKept = 100;

  // Loads and starts the module. `logSink` gets its log lines, one at a time, on the threads that
  // log. Throws Refused, std::runtime_error if the file can't be loaded, std::invalid_argument for
  // a name that is too long.
  RunningModule(const Setup& setup, std::function<void(const standin::LogLine&)> logSink);
  // Stops the module unless `stop` did.
  ~RunningModule();
  RunningModule(const RunningModule&) = delete;
  RunningModule& operator=(const RunningModule&) = delete;

  // Stops the module and returns what it leaves behind. Only the destructor may be called
  // afterwards.
  Leftovers stop();

  // Restarts the module with the present configuration file, or starts it if an earlier reload had
  // to leave it stopped. Returns how the slots differ, and lets `watch` accept the file. Throws
  // Refused if the module would refuse the file, or std::runtime_error if it can't be read or
  // checked: then the module keeps running. Stopping can take so long that the file changes once
  // more: if it is unusable after the stop, the module stays stopped. Meanwhile, and while it is
  // stopped, it is not ready, `set` throws, and everything else shows the previous run.
  std::vector<SlotChange> reload(ConfigWatch& watch);

  const Setup& setup() const { return setup_; }
  // gRPC targets of the configuration; empty for a side that is switched off.
  std::string metersTarget() const { return now()->metersTarget; }
  std::string engineTarget() const { return now()->engineTarget; }
  std::chrono::system_clock::time_point startTime() const { return now()->startTime; }

  // A different one after each reload.
  std::shared_ptr<const SlotBoard> board() const { return now()->board; }
  Links links() const { return now()->connections->links(); }
  // Whether the module runs and each meter stream in use has received a message within
  // Setup::readyAge.
  bool isReady() const;
  // Looks at all slots and links, and then calls the sinks of watchLooks. By the thread that made
  // this.
  void sample();

  // Calls `sink` after each look for as long as the watch lives, on the thread that samples. That
  // thread makes and destroys the watch.
  using LookWatch = std::shared_ptr<const std::function<void()>>;
  LookWatch watchLooks(std::function<void()> sink);

  // Stores the values in the engine slots of these names and notifies the module of all of them at
  // once, on this thread. A name that several slots share means the first. Throws
  // std::invalid_argument, which says what would be right, or NotRunning, and then changes nothing.
  Notification set(const std::vector<Change>& changes);

  // The notifications after number `number` that are still kept, oldest first.
  std::vector<Notification> notificationsAfter(unsigned number) const;
  unsigned notificationCount() const;

  // What became of notifications since then; 0 gives everything that is still known.
  CallWatch::Deliveries deliveriesSince(std::uint64_t since) const;

 private:
  // Stops an instance instead of deleting it.
  struct Stop {
    void operator()(standin::ModuleInstance* instance) const { instance->stop(); }
  };

  // One run of the instance, from a start to a stop.
  struct RunState {
    std::string metersTarget;
    std::string engineTarget;
    std::chrono::system_clock::time_point startTime;
    std::vector<tools::ConfiguredSlot> configured;
    std::vector<standin::Slot> engineSlots;
    std::shared_ptr<SlotBoard> board;
    std::shared_ptr<Connections> connections;
  };

  // The time in which a reload stops and starts the module.
  class Restart;

  void start(const gateway::ConfigManager& config);
  void stopInstance();
  std::shared_ptr<const RunState> now() const;
  std::pair<standin::Slot, standin::SlotValue> resolve(const Change& change) const;
  Delivery deliveryOf(unsigned number) const;

  const Setup setup_;
  standin::Host host_;
  standin::Engine engine_;
  standin::LoadedModule module_;
  std::optional<CallWatch> calls_;
  std::unique_ptr<standin::ModuleInstance> instance_;
  std::unique_ptr<standin::ModuleInstance, Stop> running_;
  std::vector<std::string> spoiled_;  // the damage that stopped instances did to their records
  std::vector<std::weak_ptr<const std::function<void()>>> lookWatches_;

  mutable std::mutex changing_;  // held while the module is notified; comes before mutex_
  bool isRestarting_ = false;    // guarded by changing_; while true, running_ is the reload's own
  mutable std::mutex mutex_;     // guards everything below, and the memory of engine texts
  std::shared_ptr<const RunState> now_;
  unsigned notificationCount_ = 0;
  std::deque<Notification> notifications_;
};

}  // namespace host
