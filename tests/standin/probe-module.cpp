// The smallest module that does everything that a module does. It publishes one slot of each type
// in each of the three lists and logs the changes that it gets. The parameter that otherwise names
// a configuration file may ask for more:
//   fail     start returns -1
//   spoil    start writes to a byte of the record that belongs to the host
//   overrun  start writes to the byte after the record
//   write    a thread writes the fast slots until the stop
//   leak     start allocates 24 bytes that are never released
#include <atomic>
#include <string>
#include <thread>

#include "host/sonalith.h"

namespace {

// The names and values of one list's slots: a text, an int, a uint and a float.
struct Slots {
  GatewaySlotTable table;
  sonalith_slotText names[4];
  sonalith_slotText text;
  std::int32_t intValue;
  std::uint32_t uintValue;
  float floatValue;
};

struct Writer {
  std::atomic<bool> running = true;
  std::thread thread;
};

struct Probe {
  void* callback;
  Slots fast;
  Slots slow;
  Slots engine;
  Writer* writer;
};

Probe& probeOf(sonalith_module* module) {
  return *static_cast<Probe*>(module->privateData);
}

struct Kind {
  const char* name;
  std::uint32_t flags;
  const void* validator;
};

void add(sonalith_moduleOffsetList*& list, const Kind& kind, const char* name, void* value,
         std::uint32_t type) {
  sonalith_moduleOffset slot = {};
  slot.name = name;
  slot.value = value;
  slot.valueSize = type == SONALITH_SLOT_STRING ? SONALITH_SLOT_TEXT_SIZE : 4;
  slot.valueType = type;
  slot.validator = kind.validator;
  slot.description = "a slot of the probe";
  slot.flags = kind.flags;
  sonalith_addModuleOffset(&list, &slot);
}

sonalith_moduleOffsetList* publish(Slots& slots, const Kind& kind) {
  const char* const types[] = {"text", "int", "uint", "float"};
  for (int i = 0; i < 4; ++i) {
    sonalith_strncpy(slots.names[i], (std::string(kind.name) + "_" + types[i]).c_str(), 100);
  }
  sonalith_strncpy(slots.text, (std::string("first ") + kind.name).c_str(), 100);
  slots.intValue = -2147483647;
  slots.uintValue = 4294967295U;
  slots.floatValue = 0.1F;
  auto* list = sonalith_createModuleOffset(nullptr);
  add(list, kind, slots.names[0], slots.text, SONALITH_SLOT_STRING);
  add(list, kind, slots.names[1], &slots.intValue, SONALITH_SLOT_INT);
  add(list, kind, slots.names[2], &slots.uintValue, SONALITH_SLOT_UINT);
  add(list, kind, slots.names[3], &slots.floatValue, SONALITH_SLOT_FLOAT);
  return list;
}

std::int32_t logChange(const sonalith_keyValueItem* item, void*) {
  switch (item->type) {
    case SONALITH_ITEM_UINT:
      sonalith_log(1, __FILE__, __LINE__, 1, "%s uint %u", item->key, item->value.asUint);
      break;
    case SONALITH_ITEM_INT:
      sonalith_log(1, __FILE__, __LINE__, 1, "%s int %d", item->key, item->value.asInt);
      break;
    case SONALITH_ITEM_FLOAT:
      sonalith_log(1, __FILE__, __LINE__, 1, "%s float %g", item->key,
                   static_cast<double>(item->value.asFloat));
      break;
    case SONALITH_ITEM_STRING:
      sonalith_log(1, __FILE__, __LINE__, 1, "%s text %s", item->key, item->value.asString);
      break;
  }
  return 0;
}

void onChanges(sonalith_keyValueList* changes, void*) {
  sonalith_log(1, __FILE__, __LINE__, 1, "changes");
  sonalith_keyValueListForEach(changes, logChange, nullptr);
}

void writeFastSlots(Slots& slots, const std::atomic<bool>& running) {
  for (std::uint32_t i = 0; running; ++i) {
    slots.intValue = static_cast<std::int32_t>(i);
    slots.uintValue = i;
    slots.floatValue = static_cast<float>(i);
    sonalith_strncpy(slots.text, std::to_string(i).c_str(), 100);
  }
}

void startWriter(Probe& probe) {
  probe.writer = new Writer;
  probe.writer->thread =
      std::thread([&probe] { writeFastSlots(probe.fast, probe.writer->running); });
}

void stopWriter(Writer* writer) {
  if (writer == nullptr) return;
  writer->running = false;
  writer->thread.join();
  delete writer;
}

std::string commandOf(const sonalith_keyValueList* params) {
  const char* command = nullptr;
  if (params == nullptr) return "";
  if (sonalith_keyValueListGetS(params, "gatewayConfigPath", &command) != 0) return "";
  return command;
}

std::int32_t start(sonalith_module* module, sonalith_keyValueList* params) {
  const std::string command = commandOf(params);
  sonalith_log(1, __FILE__, __LINE__, 1, "start %s %s", module->name, command.c_str());
  if (command == "fail") return -1;
  if (command == "spoil") module->reserved80[1] = 0;
  if (command == "overrun") reinterpret_cast<char*>(module + 1)[0] = 0;
  if (command == "leak") sonalith_calloc(3, 8);
  module->privateData = sonalith_calloc(1, sizeof(Probe));
  Probe& probe = probeOf(module);
  module->moduleOffsets = publish(probe.engine, {"engine", 3, sonalith_moduleValidateOk});
  module->slowMeterOffsets = publish(probe.slow, {"slow", 0, nullptr});
  module->fastMeterOffsets = publish(probe.fast, {"fast", 0, nullptr});
  module->slowMeterTable = &probe.slow.table;
  module->fastMeterTable = &probe.fast.table;
  probe.callback = sonalith_engine_notify_changes_addCallback(module->engine, onChanges, nullptr);
  if (command == "write") startWriter(probe);
  return 0;
}

void stop(sonalith_module* module) {
  Probe& probe = probeOf(module);
  sonalith_engine_notify_changes_rmCallback(module->engine, probe.callback);
  stopWriter(probe.writer);
  sonalith_free(module->moduleOffsets);
  sonalith_free(module->slowMeterOffsets);
  sonalith_free(module->fastMeterOffsets);
  sonalith_free(&probe);
  module->privateData = nullptr;
  module->moduleOffsets = nullptr;
  sonalith_log(1, __FILE__, __LINE__, 1, "stop %s", module->name);
}

}  // namespace

extern "C" {
extern const plugin_entry plugin_entry_0_1;
const plugin_entry plugin_entry_0_1 = {"probe", 0, start, 0, stop, 0, 0, 13};
}
