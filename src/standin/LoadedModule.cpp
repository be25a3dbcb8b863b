#include "standin/LoadedModule.h"

#include <dlfcn.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <stdexcept>

#include "standin/Host.h"

namespace standin {
namespace {

constexpr auto pattern = std::byte{0xA5};

struct ByteRange {
  std::size_t begin;
  std::size_t end;
};
constexpr std::array<ByteRange, 2> moduleBytes = {{
    {offsetof(sonalith_module, privateData), offsetof(sonalith_module, reserved80)},
    {offsetof(sonalith_module, slowMeterTable), sizeof(sonalith_module)},
}};

// By the boundary's rules, the host reads slots without a lock while the module writes them, so the
// thread sanitizer must not report that. It would still report library functions and, with clang,
// atomic operations.
#if __has_attribute(disable_sanitizer_instrumentation)
#define STANDIN_UNLOCKED __attribute__((noinline, disable_sanitizer_instrumentation))
#else
#define STANDIN_UNLOCKED __attribute__((noinline, no_sanitize("thread")))
#endif

STANDIN_UNLOCKED std::uint32_t readNumber(const void* value) {
  return __atomic_load_n(static_cast<const std::uint32_t*>(value), __ATOMIC_RELAXED);
}

STANDIN_UNLOCKED std::string readText(const void* value) {
  const auto* text = static_cast<const volatile char*>(value);
  std::array<char, SONALITH_SLOT_TEXT_SIZE> copy;
  std::size_t length = 0;
  for (; length < copy.size(); ++length) {
    const char byte = text[length];
    if (byte == '\0') break;
    copy[length] = byte;
  }
  return std::string(copy.data(), length);
}

STANDIN_UNLOCKED void writeNumber(void* value, std::uint32_t number) {
  __atomic_store_n(static_cast<std::uint32_t*>(value), number, __ATOMIC_RELAXED);
}

template <typename To, typename From>
To bitsAs(From from) {
  static_assert(sizeof(To) == sizeof(From));
  To to;
  std::memcpy(&to, &from, sizeof to);
  return to;
}

void store(const Slot& slot, const std::string& text) {
  auto* memory = static_cast<char*>(slot.description.value);
  const std::size_t length = std::min<std::size_t>(text.size(), SONALITH_SLOT_TEXT_SIZE - 1);
  std::memcpy(memory, text.data(), length);
  memory[length] = '\0';
}

template <typename Number>
void store(const Slot& slot, Number number) {
  writeNumber(slot.description.value, bitsAs<std::uint32_t>(number));
}

std::uint32_t slotTypeOf(const SlotValue& value) {
  // In the order of SlotValue's alternatives.
  constexpr std::array<std::uint32_t, 4> types = {SONALITH_SLOT_STRING, SONALITH_SLOT_INT,
                                                  SONALITH_SLOT_UINT, SONALITH_SLOT_FLOAT};
  return types.at(value.index());
}

const sonalith_moduleOffsetList* listOf(const sonalith_module& record, SlotSet set) {
  switch (set) {
    case SlotSet::Fast:
      return record.fastMeterOffsets;
    case SlotSet::Slow:
      return record.slowMeterOffsets;
    case SlotSet::Engine:
      return record.moduleOffsets;
  }
  return nullptr;
}

void check(const Slot& slot, const SlotValue& value) {
  if (slot.set != SlotSet::Engine) {
    throw std::invalid_argument("slot " + slot.name() + " is not an engine slot");
  }
  if (slot.description.valueType != slotTypeOf(value)) {
    throw std::invalid_argument("the value " + textOf(value) + " does not have the type of slot " +
                                slot.name());
  }
}

struct Append {
  KeyValueList& list;
  const char* key;

  void operator()(const std::string& value) const { list.addString(key, value.c_str()); }
  void operator()(std::int32_t value) const { list.addInt(key, value); }
  void operator()(std::uint32_t value) const { list.addUint(key, value); }
  void operator()(float value) const { list.addFloat(key, value); }
};

struct Text {
  std::string operator()(const std::string& value) const { return value; }

  template <typename Number>
  std::string operator()(Number value) const {
    std::array<char, 32> text;
    const auto result = std::to_chars(text.data(), text.data() + text.size(), value);
    return std::string(text.data(), result.ptr);
  }
};

// The loader's last error, with the path in front exactly once.
std::string loaderError(const std::string& path) {
  const char* reason = dlerror();
  const std::string text = reason == nullptr ? "unknown reason" : reason;
  return text.rfind(path + ": ", 0) == 0 ? text : path + ": " + text;
}

}  // namespace

LoadedModule::LoadedModule(const std::string& path)
    : library_(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {
  if (library_ == nullptr) throw std::runtime_error(loaderError(path));
  entry_ = static_cast<const plugin_entry*>(symbol("plugin_entry_0_1"));
  if (entry_ != nullptr) return;
  const std::string error = loaderError(path);
  dlclose(library_);
  throw std::runtime_error(error);
}

LoadedModule::~LoadedModule() {
  dlclose(library_);
}

void* LoadedModule::symbol(const char* name) const {
  return dlsym(library_, name);
}

std::string_view nameOf(SlotSet set) {
  switch (set) {
    case SlotSet::Fast:
      return "fast";
    case SlotSet::Slow:
      return "slow";
    case SlotSet::Engine:
      return "engine";
  }
  return "unknown";
}

SlotValue Slot::read() const {
  switch (description.valueType) {
    case SONALITH_SLOT_STRING:
      return readText(description.value);
    case SONALITH_SLOT_INT:
      return bitsAs<std::int32_t>(readNumber(description.value));
    case SONALITH_SLOT_FLOAT:
      return bitsAs<float>(readNumber(description.value));
    default:
      return readNumber(description.value);
  }
}

std::string textOf(const SlotValue& value) {
  return std::visit(Text{}, value);
}

struct ModuleInstance::Storage {
  alignas(sonalith_module) std::array<std::byte, 512> bytes;
  std::array<std::byte, 512> before;
};

ModuleInstance::ModuleInstance(const LoadedModule& module, Engine& engine, std::string_view name)
    : entry_(module.entry()), engine_(engine), storage_(std::make_unique<Storage>()) {
  if (name.size() >= sizeof record_->name) {
    throw std::invalid_argument("a module's name has at most 31 bytes");
  }
  storage_->bytes.fill(pattern);
  record_ = reinterpret_cast<sonalith_module*>(storage_->bytes.data());
  record_->name[name.copy(record_->name, name.size())] = '\0';
  record_->engine = &engine;
  record_->privateData = nullptr;
  record_->moduleOffsets = nullptr;
  storage_->before = storage_->bytes;
}

ModuleInstance::~ModuleInstance() = default;

int ModuleInstance::start(KeyValueList* params) {
  return entry_.start(record_, params);
}

int ModuleInstance::start(const std::string& configPath) {
  KeyValueList params;
  params.addString("gatewayConfigPath", configPath.c_str());
  return start(&params);
}

void ModuleInstance::stop() {
  entry_.stop(record_);
}

bool ModuleInstance::hostBytesIntact() const {
  auto expected = storage_->before;
  for (const auto& [begin, end] : moduleBytes) {
    std::copy(storage_->bytes.begin() + begin, storage_->bytes.begin() + end,
              expected.begin() + begin);
  }
  return storage_->bytes == expected;
}

std::vector<Slot> ModuleInstance::slots() const {
  std::vector<Slot> all;
  for (const auto set : {SlotSet::Fast, SlotSet::Slow, SlotSet::Engine}) {
    const auto some = slots(set);
    all.insert(all.end(), some.begin(), some.end());
  }
  return all;
}

std::vector<Slot> ModuleInstance::slots(SlotSet set) const {
  std::vector<Slot> result;
  for (const auto& description : Host::current().slotsOf(listOf(*record_, set))) {
    result.push_back({set, description});
  }
  return result;
}

Slot ModuleInstance::slot(SlotSet set, std::string_view name) const {
  for (const auto& slot : slots(set)) {
    if (slot.name() == name) return slot;
  }
  throw std::out_of_range("no " + std::string(nameOf(set)) + " slot " + std::string(name));
}

void ModuleInstance::set(const std::vector<std::pair<Slot, SlotValue>>& changes) {
  for (const auto& [slot, value] : changes) check(slot, value);
  KeyValueList list;
  for (const auto& change : changes) {
    const Slot& slot = change.first;
    std::visit([&](const auto& value) { store(slot, value); }, change.second);
    const std::string key = record_->name + ("." + slot.name());
    std::visit(Append{list, key.c_str()}, change.second);
  }
  engine_.notify(&list);
}

}  // namespace standin
