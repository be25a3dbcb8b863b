#include <chrono>
#include <cstdarg>
#include <cstring>
#include <new>

#include "standin/AcceptedLeak.h"
#include "standin/HostState.h"
#include "standin/PrintfText.h"

namespace standin {
namespace {

const char* nameOf(Operation operation) {
  switch (operation) {
    case Operation::Log:
      return "sonalith_log";
    case Operation::Calloc:
      return "sonalith_calloc";
    case Operation::Free:
      return "sonalith_free";
    case Operation::Strncpy:
      return "sonalith_strncpy";
    case Operation::CreateModuleOffset:
      return "sonalith_createModuleOffset";
    case Operation::AddModuleOffset:
      return "sonalith_addModuleOffset";
    case Operation::KeyValueListNew:
      return "sonalith_keyValueListNew";
    case Operation::KeyValueListDestroy:
      return "sonalith_keyValueListDestroy";
    case Operation::KeyValueListIsEmpty:
      return "sonalith_keyValueListIsEmpty";
    case Operation::KeyValueListGetS:
      return "sonalith_keyValueListGetS";
    case Operation::KeyValueListForEach:
      return "sonalith_keyValueListForEach";
    case Operation::KeyValueListAdd:
      return "sonalith_keyValueListAdd";
    case Operation::AddCallback:
      return "sonalith_engine_notify_changes_addCallback";
    case Operation::RmCallback:
      return "sonalith_engine_notify_changes_rmCallback";
  }
  return "unknown operation";
}

std::string numbered(const Memory::Block& block) {
  return "#" + std::to_string(block.number);
}

std::uint64_t sizeOf(std::uint32_t valueType) {
  switch (valueType) {
    case SONALITH_SLOT_INT:
    case SONALITH_SLOT_FLOAT:
    case SONALITH_SLOT_UINT:
      return 4;
    case SONALITH_SLOT_STRING:
      return SONALITH_SLOT_TEXT_SIZE;
    default:
      return 0;
  }
}

bool reservedAreZero(const sonalith_moduleOffset& slot) {
  return (slot.reserved8 | slot.reserved24 | slot.reserved40 | slot.reserved48 | slot.reserved60 |
          slot.reserved72 | slot.reserved80) == 0;
}

}  // namespace

Call::Call(Operation operation) : operation_(operation), state_(*Host::current().state_) {
  if (state_.lean) {
    choices_.keepRecords = false;
    if (state_.timed) begin_ = std::chrono::steady_clock::now();
    return;
  }
  std::unique_lock lock(state_.mutex);
  if (const auto hook = state_.hooks.find(operation); hook != state_.hooks.end()) {
    const std::function<void()> before = hook->second;
    lock.unlock();
    before();
    lock.lock();
  }
  choices_ = state_.choices;
  const auto fault = state_.faults.find({operation, ++state_.callsBegun[operation]});
  if (fault == state_.faults.end()) return;
  ++state_.callsEnded;
  state_.called.notify_all();
  throw Fault(fault->second);
}

Call::~Call() {
  if (state_.timed) {
    const std::chrono::nanoseconds time = std::chrono::steady_clock::now() - begin_;
    state_.nanosecondsInOperations += time.count();
  }
  if (state_.lean) return;
  const std::lock_guard lock(state_.mutex);
  ++state_.callsEnded;
  state_.called.notify_all();
}

bool Call::given(bool all) {
  if (!all) violation("null argument");
  return all;
}

void Call::violation(const std::string& text) {
  const std::lock_guard lock(state_.mutex);
  state_.violations.push_back(std::string(nameOf(operation_)) + ": " + text);
}

template <class MakeEntry>
void Call::record(MakeEntry makeEntry) {
  if (choices_.keepRecords) state_.journal.push_back(makeEntry());
}

bool Call::isHeard() const {
  if (!state_.lean) return true;
  const std::lock_guard sinkLock(state_.sinkMutex);
  return state_.sink != nullptr;
}

void Call::log(const LogLine& line) {
  const std::lock_guard sinkLock(state_.sinkMutex);
  if (choices_.keepRecords) {
    const std::lock_guard lock(state_.mutex);
    record([&] { return "log " + std::to_string(line.level) + " " + line.text; });
    state_.log.push_back(line);
  }
  if (state_.sink) state_.sink(line);
}

void* Call::allocate(std::uint64_t count, std::uint64_t size) {
  std::uint64_t total = 0;
  if (__builtin_mul_overflow(count, size, &total)) throw std::bad_alloc();
  const std::lock_guard lock(state_.mutex);
  const auto& block = state_.memory.allocate(Memory::Kind::Plain, total);
  record([&] {
    return "calloc " + std::to_string(count) + "x" + std::to_string(size) + " " + numbered(block);
  });
  return block.bytes.get();
}

void Call::release(void* memory) {
  if (!given(memory != nullptr)) return;
  const std::lock_guard lock(state_.mutex);
  const auto* block = state_.memory.find(nameOf(operation_), memory);
  if (block == nullptr) return;
  record([&] { return "free " + numbered(*block); });
  state_.memory.release(*block);
}

void Call::copyText(char* destination, const char* source, std::uint64_t size) {
  if (!given(destination != nullptr && source != nullptr) || size == 0) return;
  const std::size_t length = strnlen(source, size);
  std::memcpy(destination, source, length);
  std::memset(destination + length, 0, size - length);
  if (choices_.strncpyTerminates) destination[size - 1] = '\0';
}

sonalith_moduleOffsetList* Call::newOffsets(const void* argument) {
  if (argument != nullptr) violation("the argument is not null");
  const std::lock_guard lock(state_.mutex);
  const auto& block =
      state_.memory.allocate(Memory::Kind::OffsetList, sizeof(sonalith_moduleOffsetList));
  record([&] { return "createModuleOffset " + numbered(block); });
  return new (block.bytes.get()) sonalith_moduleOffsetList{0};
}

bool Call::acceptable(const sonalith_moduleOffset& slot) {
  if (!given(slot.name != nullptr && slot.value != nullptr && slot.description != nullptr)) {
    return false;
  }
  if (!reservedAreZero(slot)) {
    violation("slot " + std::string(slot.name) + " has reserved bytes that are not zero");
    return false;
  }
  if (sizeOf(slot.valueType) == 0 || sizeOf(slot.valueType) != slot.valueSize) {
    violation("slot " + std::string(slot.name) + " has value type " +
              std::to_string(slot.valueType) + " and size " + std::to_string(slot.valueSize));
    return false;
  }
  return true;
}

void Call::addOffset(sonalith_moduleOffsetList** list, const sonalith_moduleOffset* slot) {
  if (!given(list != nullptr && *list != nullptr && slot != nullptr) || !acceptable(*slot)) return;
  const std::lock_guard lock(state_.mutex);
  const auto* old = state_.memory.find(nameOf(operation_), *list);
  if (old == nullptr) return;
  if (old->kind != Memory::Kind::OffsetList) {
    state_.violations.push_back(std::string(nameOf(operation_)) + ": " + old->name() +
                                " is not an offset list");
    return;
  }
  const std::size_t used = sizeof **list + (*list)->count * sizeof *slot;
  const bool fits = used + sizeof *slot <= old->size;
  const std::size_t spare = state_.lean || !choices_.listsAlwaysMove ? used : 0;
  const std::size_t size = used + sizeof *slot + spare;
  const auto& grown = fits ? *old : state_.memory.allocate(Memory::Kind::OffsetList, size);
  if (!fits) std::memcpy(grown.bytes.get(), old->bytes.get(), used);
  std::memcpy(grown.bytes.get() + used, slot, sizeof *slot);
  *list = reinterpret_cast<sonalith_moduleOffsetList*>(grown.bytes.get());
  ++(*list)->count;
  record([&] {
    return "addModuleOffset " + numbered(*old) + ">" + numbered(grown) + " " + slot->name;
  });
  if (!fits) state_.memory.release(*old);
}

KeyValueList* Call::newKeyValueList() {
  auto list = std::make_unique<KeyValueList>();
  if (state_.lean) return list.release();
  const std::lock_guard lock(state_.mutex);
  return (state_.keyValueLists[list.get()] = std::move(list)).get();
}

void Call::destroyKeyValueList(KeyValueList* list) {
  if (!given(list != nullptr)) return;
  if (state_.lean) {
    delete list;
    return;
  }
  const std::lock_guard lock(state_.mutex);
  if (state_.keyValueLists.erase(list) == 1) return;
  state_.violations.push_back(std::string(nameOf(operation_)) +
                              ": not a list that the module holds");
}

bool Call::isEmpty(const KeyValueList* list) {
  return !given(list != nullptr) || list->items().empty();
}

bool Call::getText(const KeyValueList* list, const char* key, const char** value) {
  if (!given(list != nullptr && key != nullptr && value != nullptr)) return false;
  for (const auto& item : list->items()) {
    if (item.type != SONALITH_ITEM_STRING || item.key == nullptr) continue;
    if (std::strcmp(item.key, key) != 0) continue;
    *value = item.value.asString;
    return true;
  }
  if (choices_.missedTextIsNull) *value = nullptr;
  return false;
}

void Call::forEach(const KeyValueList* list, sonalith_keyValueItemCallback callback, void* user) {
  if (!given(list != nullptr && callback != nullptr)) return;
  const std::size_t count = list->items().size();
  for (std::size_t i = 0; i < count; ++i) {
    // A copy, since the callback may append to this list.
    const sonalith_keyValueItem item = list->items()[i];
    if (callback(&item, user) == 1 && choices_.iterationStopsAtOne) return;
  }
}

bool Call::mayAdd(const KeyValueList* list, const char* key) {
  return given(list != nullptr && key != nullptr);
}

void* Call::addCallback(Engine* engine, sonalith_engineChangesCallback callback, void* user) {
  if (!given(engine != nullptr && callback != nullptr)) return nullptr;
  {
    const std::lock_guard lock(state_.mutex);
    record([&] { return std::string("addCallback"); });
    if (choices_.registrationFails) return nullptr;
    ++state_.callbacks;
  }
  void* handle = engine->addCallback(callback, user);
  if (choices_.changesDuringRegistration != nullptr) {
    const AcceptedLeak callDroppedByAStop;
    callback(choices_.changesDuringRegistration, user);
  }
  return handle;
}

void Call::removeCallback(Engine* engine, void* handle) {
  if (!given(engine != nullptr && handle != nullptr)) return;
  if (!engine->removeCallback(handle)) {
    violation("the callback is not registered");
    return;
  }
  const std::lock_guard lock(state_.mutex);
  record([&] { return std::string("rmCallback"); });
  --state_.callbacks;
}

}  // namespace standin

using standin::Call;
using standin::Operation;

const char sonalith_moduleValidateOk[] = "accepts every value";

void sonalith_log(int32_t level, const char* file, int32_t line, int32_t one, const char* format,
                  ...) {
  const auto now = std::chrono::system_clock::now();
  Call call(Operation::Log);
  if (!call.given(file != nullptr && format != nullptr) || !call.isHeard()) return;
  va_list arguments;
  va_start(arguments, format);
  standin::PrintfText printed = standin::printfText(format, arguments);
  va_end(arguments);
  call.log(
      {now, level, file, line, one, format, std::move(printed.arguments), std::move(printed.text)});
}

void* sonalith_calloc(uint64_t count, uint64_t size) {
  return Call(Operation::Calloc).allocate(count, size);
}

void sonalith_free(void* memory) {
  Call(Operation::Free).release(memory);
}

void sonalith_strncpy(char* destination, const char* source, uint64_t size) {
  Call(Operation::Strncpy).copyText(destination, source, size);
}

sonalith_moduleOffsetList* sonalith_createModuleOffset(void* always_null) {
  return Call(Operation::CreateModuleOffset).newOffsets(always_null);
}

void sonalith_addModuleOffset(sonalith_moduleOffsetList** list, const sonalith_moduleOffset* slot) {
  Call(Operation::AddModuleOffset).addOffset(list, slot);
}

sonalith_keyValueList* sonalith_keyValueListNew(void) {
  return Call(Operation::KeyValueListNew).newKeyValueList();
}

void sonalith_keyValueListDestroy(sonalith_keyValueList* list) {
  Call(Operation::KeyValueListDestroy).destroyKeyValueList(list);
}

int32_t sonalith_keyValueListIsEmpty(const sonalith_keyValueList* list) {
  return Call(Operation::KeyValueListIsEmpty).isEmpty(list) ? 1 : 0;
}

int32_t sonalith_keyValueListGetS(const sonalith_keyValueList* list, const char* key,
                                  const char** value) {
  return Call(Operation::KeyValueListGetS).getText(list, key, value) ? 0 : -1;
}

void sonalith_keyValueListForEach(const sonalith_keyValueList* list,
                                  sonalith_keyValueItemCallback callback, void* user) {
  Call(Operation::KeyValueListForEach).forEach(list, callback, user);
}

void sonalith_keyValueListAddSS(sonalith_keyValueList* list, const char* key, const char* value) {
  if (Call(Operation::KeyValueListAdd).mayAdd(list, key)) list->addString(key, value);
}

void sonalith_keyValueListAddSI32(sonalith_keyValueList* list, const char* key, int32_t value) {
  if (Call(Operation::KeyValueListAdd).mayAdd(list, key)) list->addInt(key, value);
}

void sonalith_keyValueListAddSU32(sonalith_keyValueList* list, const char* key, uint32_t value) {
  if (Call(Operation::KeyValueListAdd).mayAdd(list, key)) list->addUint(key, value);
}

void sonalith_keyValueListAddSF(sonalith_keyValueList* list, const char* key, float value) {
  if (Call(Operation::KeyValueListAdd).mayAdd(list, key)) list->addFloat(key, value);
}

void* sonalith_engine_notify_changes_addCallback(sonalith_engine* engine,
                                                 sonalith_engineChangesCallback callback,
                                                 void* user) {
  return Call(Operation::AddCallback).addCallback(engine, callback, user);
}

void sonalith_engine_notify_changes_rmCallback(sonalith_engine* engine, void* handle) {
  Call(Operation::RmCallback).removeCallback(engine, handle);
}
