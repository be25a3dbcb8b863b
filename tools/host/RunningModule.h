// A module that runs in the stand-in host: its slots, and the changes that it is sent.
//
// Threads: made, sampled and destroyed by one thread; all else is for any thread.
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
#include "tools/host/Connections.h"
#include "tools/host/SlotBoard.h"

namespace host {

// The module refuses the configuration; its own log lines say why.
struct Refused : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// What to start, and from which files.
struct Setup {
  std::string config;        // path of the configuration file
  std::string module;        // path of the module's file
  std::string name;          // of the instance, at most 31 bytes
  bool watchesCalls = true;  // otherwise the module's links are unknown
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

  const Setup& setup() const { return setup_; }
  // gRPC targets of the configuration; empty for a side that is switched off.
  const std::string& metersTarget() const { return metersTarget_; }
  const std::string& engineTarget() const { return engineTarget_; }
  std::chrono::system_clock::time_point startTime() const { return startTime_; }

  const SlotBoard& board() const { return *board_; }
  Links links() const { return connections_->links(); }
  // Whether each meter stream in use has received a message within Setup::readyAge.
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
  // std::invalid_argument, which says what would be right, and then changes nothing.
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

  std::pair<standin::Slot, standin::SlotValue> resolve(const Change& change) const;
  Delivery deliveryOf(unsigned number) const;

  const Setup setup_;
  standin::Host host_;
  standin::Engine engine_;
  standin::LoadedModule module_;
  standin::ModuleInstance instance_;
  std::unique_ptr<standin::ModuleInstance, Stop> running_;
  std::optional<Connections> connections_;
  std::string metersTarget_;
  std::string engineTarget_;
  std::chrono::system_clock::time_point startTime_;
  std::vector<standin::Slot> engineSlots_;
  std::optional<SlotBoard> board_;
  std::vector<std::weak_ptr<const std::function<void()>>> lookWatches_;

  mutable std::mutex mutex_;  // guards everything below, and the memory of engine texts
  unsigned notificationCount_ = 0;
  std::deque<Notification> notifications_;
};

}  // namespace host
