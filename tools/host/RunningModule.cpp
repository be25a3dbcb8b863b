#include "tools/host/RunningModule.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <type_traits>

#include "module/grpc-gateway/ConfigManager.h"
#include "tools/common/Configuration.h"
#include "tools/common/ConfiguredSlots.h"
#include "tools/common/Numbers.h"
#include "tools/common/Suggestion.h"

namespace host {
namespace {

using gateway::ValueType;
using standin::Slot;
using standin::SlotSet;
using standin::SlotValue;

template <class T>
T parseNumber(const Change& change, const char* wanted) {
  if (const auto number = tools::numberIn<T>(change.value)) return *number;
  if constexpr (std::is_floating_point_v<T>) {
    // Too close to zero for the type.
    const auto wide = tools::numberIn<double>(change.value);
    if (wide && std::abs(*wide) < 1) return static_cast<T>(*wide);
  }
  if (tools::isOutOfRange<T>(change.value)) {
    throw std::invalid_argument(
        fmt::format("\"{}\" is out of range: {} takes {}", change.value, change.name, wanted));
  }
  throw std::invalid_argument(
      fmt::format("{} takes {}, not \"{}\"", change.name, wanted, change.value));
}

SlotValue parseValue(const Slot& slot, const Change& change) {
  switch (ValueType{slot.description.valueType}) {
    case ValueType::Int:
      return parseNumber<std::int32_t>(change, "an integer from -2147483648 to 2147483647");
    case ValueType::Uint:
      return parseNumber<std::uint32_t>(change, "an integer from 0 to 4294967295");
    case ValueType::Float:
      return parseNumber<float>(change, "a number from -3.4e38 to 3.4e38");
    case ValueType::String:
      break;
  }
  return change.value;
}

// Why no engine slot has this name.
std::string unknownSlot(const std::string& name, const std::vector<Slot>& engineSlots,
                        const std::vector<SlotLabel>& all) {
  const auto meter = std::find_if(all.begin(), all.end(),
                                  [&](const SlotLabel& label) { return label.name == name; });
  if (meter != all.end()) {
    return fmt::format("{} is a {} slot: only engine slots can be set", name, nameOf(meter->set));
  }
  if (engineSlots.empty()) return fmt::format("no engine slot \"{}\": there are none", name);
  std::vector<std::string> names;
  names.reserve(engineSlots.size());
  for (const Slot& slot : engineSlots) names.push_back(slot.name());
  const std::string meant = tools::didYouMean(name, names);
  return fmt::format("no engine slot \"{}\"{}", name,
                     meant.empty() ? fmt::format(": there are {}", fmt::join(names, ", ")) : meant);
}

// Asks a child, since a file that includes itself would crash the reader. The messages say what the
// module does then.
void requireUsable(const std::string& config, const char* consequence) {
  bool isAccepted = false;
  try {
    tools::requireReadable(config);
    isAccepted = tools::isAccepted(config);
  } catch (const std::runtime_error& error) {
    throw std::runtime_error(fmt::format("{}, so the module {}", error.what(), consequence));
  }
  if (isAccepted) return;
  throw Refused(fmt::format("the module would refuse {}, so it {}; the findings below say why",
                            config, consequence));
}

}  // namespace

std::vector<std::string> Leftovers::problems() const {
  if (isClean()) return {};
  std::vector<std::string> problems{fmt::format(
      "the module did not return {} blocks with {} bytes, {} key/value lists, {} callbacks",
      notReturned.blocks, notReturned.bytes, notReturned.keyValueLists, notReturned.callbacks)};
  problems.insert(problems.end(), violations.begin(), violations.end());
  return problems;
}

RunningModule::RunningModule(const Setup& setup,
                             std::function<void(const standin::LogLine&)> logSink)
    : setup_(setup),
      host_({.listsAlwaysMove = false, .keepRecords = false}),
      module_(setup.module) {
  // Read a second time, for what the module does not publish. The module reports what is wrong.
  const gateway::ConfigManager config(setup.config);
  if (setup.watchesCalls) calls_.emplace(setup.tapped);
  host_.setLogSink(std::move(logSink));
  start(config);
}

RunningModule::~RunningModule() = default;

void RunningModule::start(const gateway::ConfigManager& config) {
  instance_ = std::make_unique<standin::ModuleInstance>(module_, engine_, setup_.name);
  auto next = std::make_shared<RunState>();
  next->metersTarget = config.metersTarget;
  next->engineTarget = config.engineTarget;
  next->connections = std::make_shared<Connections>(config, calls_ ? &*calls_ : nullptr);
  next->startTime = std::chrono::system_clock::now();
  if (setup_.tapped.tap) setup_.tapped.tap->directed(config.engineTarget);
  if (instance_->start(setup_.config) != 0) {
    tools::requireReadable(setup_.config);
    throw Refused(fmt::format(
        "the module refused {}; the messages above and the findings below say why", setup_.config));
  }
  running_.reset(instance_.get());
  next->configured = tools::slotsOf(config);
  next->engineSlots = instance_->slots(SlotSet::Engine);
  next->board = std::make_shared<SlotBoard>(instance_->slots(), next->configured);
  const std::lock_guard lock(mutex_);
  now_ = std::move(next);
}

std::shared_ptr<const RunningModule::RunState> RunningModule::now() const {
  const std::lock_guard lock(mutex_);
  return now_;
}

void RunningModule::stopInstance() {
  if (!running_) return;
  running_.reset();
  if (instance_->hostBytesIntact()) return;
  spoiled_.emplace_back("bytes of the module's record that are the host's were changed");
}

Leftovers RunningModule::stop() {
  stopInstance();
  Leftovers leftovers{host_.outstanding(), host_.violations()};
  leftovers.violations.insert(leftovers.violations.end(), spoiled_.begin(), spoiled_.end());
  return leftovers;
}

class RunningModule::Restart {
 public:
  explicit Restart(RunningModule& module) : module_(module) { mark(true); }
  ~Restart() { mark(false); }
  Restart(const Restart&) = delete;
  Restart& operator=(const Restart&) = delete;

 private:
  void mark(bool isRestarting) {
    const std::lock_guard changing(module_.changing_);
    module_.isRestarting_ = isRestarting;
  }

  RunningModule& module_;
};

std::vector<SlotChange> RunningModule::reload(ConfigWatch& watch) {
  if (running_) requireUsable(setup_.config, "keeps running as before");
  const Restart restart(*this);
  watch.forget();
  stopInstance();
  requireUsable(setup_.config, "stays stopped until the next change");
  const auto before = now();
  start(gateway::ConfigManager(setup_.config));
  watch.accept();
  return changesBetween(before->configured, now()->configured);
}

bool RunningModule::isReady() const {
  {
    const std::lock_guard changing(changing_);
    if (isRestarting_ || !running_) return false;
  }
  const std::chrono::duration<double> age(setup_.readyAge);
  return host::isReady(links(), std::chrono::duration_cast<Clock::duration>(age), Clock::now());
}

void RunningModule::sample() {
  const auto run = now();
  // A stopped module has taken the memory of its slots with it.
  if (running_) {
    const std::lock_guard lock(mutex_);
    run->board->sample(Clock::now());
  }
  run->connections->sample(Clock::now());
  std::erase_if(lookWatches_, [](const auto& watch) { return watch.expired(); });
  for (const auto& watch : lookWatches_) (*watch.lock())();
}

RunningModule::LookWatch RunningModule::watchLooks(std::function<void()> sink) {
  auto watch = std::make_shared<const std::function<void()>>(std::move(sink));
  lookWatches_.push_back(watch);
  return watch;
}

Notification RunningModule::set(const std::vector<Change>& changes) {
  if (changes.empty()) throw std::invalid_argument("nothing to set");
  const std::lock_guard changing(changing_);
  if (isRestarting_) throw NotRunning("the module is being restarted");
  if (!running_) throw NotRunning("the module is stopped until its configuration is repaired");
  std::vector<std::pair<Slot, SlotValue>> resolved;
  Notification notification;
  for (const Change& change : changes) {
    resolved.push_back(resolve(change));
    notification.changes.push_back({change.name, standin::textOf(resolved.back().second)});
  }
  const std::lock_guard lock(mutex_);
  notification.number = ++notificationCount_;
  notification.time = std::chrono::system_clock::now();
  notifications_.push_back(notification);
  if (notifications_.size() > notificationsKept) notifications_.pop_front();
  const CallWatch::Attribution attribution(notification.number);
  instance_->set(resolved);
  return notification;
}

std::pair<Slot, SlotValue> RunningModule::resolve(const Change& change) const {
  const auto run = now();
  for (const Slot& slot : run->engineSlots) {
    if (slot.name() == change.name) return {slot, parseValue(slot, change)};
  }
  throw std::invalid_argument(unknownSlot(change.name, run->engineSlots, run->board->labels()));
}

std::vector<Notification> RunningModule::notificationsAfter(unsigned number) const {
  const std::lock_guard lock(mutex_);
  std::vector<Notification> later;
  for (const Notification& notification : notifications_) {
    if (notification.number <= number) continue;
    later.push_back(notification);
    later.back().delivery = deliveryOf(notification.number);
  }
  return later;
}

Delivery RunningModule::deliveryOf(unsigned number) const {
  return calls_ ? calls_->deliveryOf(number) : Delivery{};
}

CallWatch::Deliveries RunningModule::deliveriesSince(std::uint64_t since) const {
  return calls_ ? calls_->deliveriesSince(since) : CallWatch::Deliveries{};
}

unsigned RunningModule::notificationCount() const {
  const std::lock_guard lock(mutex_);
  return notificationCount_;
}

}  // namespace host
