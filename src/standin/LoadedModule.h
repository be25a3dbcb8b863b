// A module as a host sees it: a file to load, and instances of it to start, inspect and stop. It
// knows the module through sonalith.h alone.
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

// A shared object with a descriptor. The destructor unloads it; no instance may exist by then.
class LoadedModule {
 public:
  // Throws std::runtime_error with the path and the reason if the file can't be loaded or has no
  // descriptor.
  explicit LoadedModule(const std::string& path);
  ~LoadedModule();
  LoadedModule(const LoadedModule&) = delete;
  LoadedModule& operator=(const LoadedModule&) = delete;

  const plugin_entry& entry() const { return *entry_; }
  // The address of an exported symbol, or null.
  void* symbol(const char* name) const;

 private:
  void* library_;
  const plugin_entry* entry_;
};

// g++ wrongly warns that the enumerator shadows the type Engine.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wshadow"
enum class SlotSet { Fast, Slow, Engine };
#pragma GCC diagnostic pop
std::string_view nameOf(SlotSet set);  // "fast", "slow", "engine"

using SlotValue = std::variant<std::string, std::int32_t, std::uint32_t, float>;

// One slot as the module described it. Its memory belongs to the module, which releases it when it
// stops.
struct Slot {
  SlotSet set;
  sonalith_moduleOffset description;

  std::string name() const { return description.name; }
  // Reads the value as the host does: without a lock, while the module may be writing. A number is
  // one aligned load; a string may be half old and half new.
  SlotValue read() const;
};

// The text of a value for people. A number has the shortest form that reads back the same.
std::string textOf(const SlotValue& value);

// One instance: its record, its engine, and the calls of its entries. One thread at a time, except
// that notifications may come from any thread.
class ModuleInstance {
 public:
  // `module` and `engine` must outlive the instance. Throws std::invalid_argument if `name` has
  // more than 31 bytes.
  ModuleInstance(const LoadedModule& module, Engine& engine, std::string_view name = "gateway");
  // Does not stop the module, since a test may want to leave it running.
  ~ModuleInstance();
  ModuleInstance(const ModuleInstance&) = delete;
  ModuleInstance& operator=(const ModuleInstance&) = delete;

  // Calls the module's start entry and returns its result. The second form passes the path as the
  // start parameter `gatewayConfigPath`.
  int start(KeyValueList* params);
  int start(const std::string& configPath);
  void stop();

  sonalith_module& record() { return *record_; }
  // False if the module wrote to bytes of the record, or past it, that belong to the host. Before
  // the start a pattern fills these bytes and the module's own fields, except `privateData` and
  // `moduleOffsets`, which are null.
  bool hostBytesIntact() const;

  // All slots of a started module: fast, slow, engine, each set in list order. Throws
  // std::logic_error before the start and after the stop, when the module holds no such lists.
  std::vector<Slot> slots() const;
  std::vector<Slot> slots(SlotSet set) const;
  // The first slot of a set with this name. Throws std::out_of_range with the name if there is
  // none.
  Slot slot(SlotSet set, std::string_view name) const;

  // Does what the engine does when parameters change: stores the values in the engine slots and
  // reports all of them in one notification, on this thread. A text that is too long for its slot
  // is cut there, but whole in the notification. Throws std::invalid_argument, and changes nothing,
  // unless all slots are engine slots and each value has the type of its slot.
  void set(const std::vector<std::pair<Slot, SlotValue>>& changes);

 private:
  struct Storage;  // the record, followed by more bytes of the host

  const plugin_entry& entry_;
  Engine& engine_;
  std::unique_ptr<Storage> storage_;
  sonalith_module* record_;
};

}  // namespace standin
