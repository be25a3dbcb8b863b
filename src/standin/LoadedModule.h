// A module as a host sees it: a file that is loaded, and instances of it that are started, looked
// at and stopped. Knows the module by sonalith.h alone.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "host/sonalith.h"
#include "standin/Engine.h"
#include "standin/KeyValueList.h"

namespace standin {

// A shared object with a descriptor. Unloads it in the end; no instance may be left by then.
class LoadedModule {
 public:
  // Throws std::runtime_error, telling the path and the reason, if the file can't be loaded or has
  // no descriptor.
  explicit LoadedModule(const std::string& path);
  ~LoadedModule();
  LoadedModule(const LoadedModule&) = delete;
  LoadedModule& operator=(const LoadedModule&) = delete;

  const plugin_entry& entry() const { return *entry_; }
  // Address of an exported symbol, or null.
  void* symbol(const char* name) const;

 private:
  void* library_;
  const plugin_entry* entry_;
};

// g++ takes a name inside an enum class for one that shadows the type Engine.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wshadow"
enum class SlotSet { Fast, Slow, Engine };
#pragma GCC diagnostic pop
std::string_view nameOf(SlotSet set);  // "fast", "slow", "engine"

using SlotValue = std::variant<std::string, std::int32_t, std::uint32_t, float>;

// One slot as the module described it. Its memory belongs to the module and goes when it stops.
struct Slot {
  SlotSet set;
  sonalith_moduleOffset description;

  std::string name() const { return description.name; }
  // Reads the value as the host does: without a lock, while the module may be writing. A number is
  // one aligned load; a string can be half old and half new.
  SlotValue read() const;
};

// The text of a value, as people write it: numbers in the shortest form that reads back the same.
std::string textOf(const SlotValue& value);

// One instance: the host's record, its engine and its start and stop. One thread at a time, but for
// notifications, which may come from any.
class ModuleInstance {
 public:
  // `module` and `engine` are borrowed for the instance's life. `name` has at most 31 bytes
  // (std::invalid_argument otherwise).
  ModuleInstance(const LoadedModule& module, Engine& engine, std::string_view name = "gateway");
  // Does not stop: a test may want to leave a record as it is.
  ~ModuleInstance();
  ModuleInstance(const ModuleInstance&) = delete;
  ModuleInstance& operator=(const ModuleInstance&) = delete;

  // Calls the module's start entry and returns its result. The second form passes a list with the
  // start parameter `gatewayConfigPath`.
  int start(KeyValueList* params);
  int start(const std::string& configPath);
  void stop();

  sonalith_module& record() { return *record_; }
  // False if the module wrote to bytes of the record, or behind it, that belong to the host. Those
  // are filled with a pattern, and so are the fields that the module writes, but for `privateData`
  // and `moduleOffsets`, which are null before the start.
  bool hostBytesIntact() const;

  // All slots of a started module, in the order fast, slow, engine, each in list order. Throws
  // std::logic_error if the record shows a list that the module does not hold: before the start,
  // after the stop.
  std::vector<Slot> slots() const;
  std::vector<Slot> slots(SlotSet set) const;
  // The first slot of that name in a set. Throws std::out_of_range, naming it, if there is none.
  Slot slot(SlotSet set, std::string_view name) const;

  // Does what the engine does when parameters are changed: stores the values in the engine slots
  // and tells of all of them in one notification, on this thread. A text that is too long for its
  // slot is cut there and whole in the notification. Slots must be engine slots, and a value must
  // have its slot's type (std::invalid_argument otherwise, and nothing is changed).
  void set(const std::vector<std::pair<Slot, SlotValue>>& changes);

 private:
  struct Storage;  // the record, and more bytes of the host behind it

  const plugin_entry& entry_;
  Engine& engine_;
  std::unique_ptr<Storage> storage_;
  sonalith_module* record_;
};

}  // namespace standin
