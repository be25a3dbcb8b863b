#include "module/grpc-gateway/grpc-gateway-module.h"

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "module/grpc-gateway/EngineListCopy.h"
#include "module/grpc-gateway/GatewaySlots.h"
#include "module/grpc-gateway/HostAccess.h"

namespace gateway {
namespace {

// ---- Engine changes -----------------------------------------------------------------------------

// The slot name in an item's key, which has the form "MODULE.SLOT". If the key belongs to another
// module, returns an empty name, which matches no slot.
std::string_view slotNameOf(std::string_view itemKey, std::string_view moduleName) {
  const std::size_t point = moduleName.size();
  if (!itemKey.starts_with(moduleName) || itemKey.size() == point) return {};
  return itemKey[point] == '.' ? itemKey.substr(point + 1) : std::string_view();
}

// The position for which `name` was generated, or a number that is no position.
std::size_t generatedPosition(std::string_view name, std::string_view prefix) {
  constexpr std::size_t none = static_cast<std::size_t>(-1);
  if (!name.starts_with(prefix)) return none;
  const std::string_view digits = name.substr(prefix.size());
  std::size_t position = none;
  std::from_chars(digits.data(), digits.data() + digits.size(), position);
  // Generated names have no leading zeros, and nothing follows the number.
  return digits == std::to_string(position) ? position : none;
}

// The filter's user argument, with the lists that the items of this notification have selected so
// far, each packed once.
struct Notification : EngineChangeFilter {
  using PackedList = std::optional<EngineListCopy>;

  explicit Notification(ModuleManager* receiver) : EngineChangeFilter{receiver, nullptr} {}

  PackedList uints;
  PackedList ints;
  PackedList floats;
  PackedList strings;
};

// Adds the item to the matched changes once per entry whose slot has the item's name, under the key
// that the remote engine knows. Copies the list for this item.
template <class T, class Value>
void forwardMatches(sonalith_keyValueList* matched, std::string_view name,
                    const std::vector<EngineEntry>& list, Notification::PackedList& packed,
                    void (*add)(sonalith_keyValueList* list, const char* key, Value value),
                    Value value) {
  const std::size_t position = generatedPosition(name, GatewaySlotGroup<T>::namePrefix);
  if (!packed) packed.emplace(list);
  const EngineListCopy entries(*packed);
  for (std::size_t i = 0; i < entries.size(); ++i) {
    const bool matches = entries.hasCustomKey(i) ? entries.customKeyIs(i, name) : i == position;
    if (matches) add(matched, entries.key(i), value);
  }
}

// An item's type selects the list. Arrays, doubles and null strings are not forwarded.
void forwardItem(Notification& notification, const sonalith_keyValueItem& item) {
  const std::shared_ptr<const ConfigManager> config = notification.manager->config;
  const std::string moduleName = stringFromHost(notification.manager->module->name);
  const std::string key = stringFromHost(item.key);
  const std::string_view name = slotNameOf(key, moduleName);
  const sonalith_itemValue& value = item.value;
  switch (item.type) {
    case SONALITH_ITEM_UINT:
      return forwardMatches<std::uint32_t>(notification.matched, name, config->engineUints,
                                           notification.uints, sonalith_keyValueListAddSU32,
                                           value.asUint);
    case SONALITH_ITEM_INT:
      return forwardMatches<std::int32_t>(notification.matched, name, config->engineInts,
                                          notification.ints, sonalith_keyValueListAddSI32,
                                          value.asInt);
    case SONALITH_ITEM_FLOAT:
      return forwardMatches<float>(notification.matched, name, config->engineFloats,
                                   notification.floats, sonalith_keyValueListAddSF, value.asFloat);
    case SONALITH_ITEM_STRING:
      if (value.asString == nullptr) return;
      return forwardMatches<std::string>(notification.matched, name, config->engineStrings,
                                         notification.strings, sonalith_keyValueListAddSS,
                                         value.asString);
    default:
      return;
  }
}

void logException(int level, const std::exception& exception) {
  GATEWAY_LOG(level, "C++ exception in grpc gateway: %s", exception.what());
}

std::int32_t filterEngineChange(const sonalith_keyValueItem* item, void* filter) {
  try {
    forwardItem(*static_cast<Notification*>(filter), *item);
    return 0;
  } catch (const std::exception& exception) {
    logException(SONALITH_LOG_TRACE, exception);
    return 1;
  }
}

template <class Step>
void logExceptionsOf(Step step) {
  try {
    step();
  } catch (const std::exception& exception) {
    logException(SONALITH_LOG_TRACE, exception);
  }
}

void forwardChanges(Notification& notification, const sonalith_keyValueList* changes) {
  notification.matched = sonalith_keyValueListNew();
  sonalith_keyValueListForEach(changes, filterEngineChange, &notification);
  if (sonalith_keyValueListIsEmpty(notification.matched) != 0) return;
  const std::shared_ptr<gRPCGatewayClient> client = notification.manager->client;
  client->sendParams(notification.matched);
}

// Forwards what passes the filter in one call.
void onEngineChanges(sonalith_keyValueList* changes, void* user) {
  Notification notification(static_cast<ModuleManager*>(user));
  logExceptionsOf([&] { forwardChanges(notification, changes); });
  if (notification.matched == nullptr) return;
  logExceptionsOf([&] { sonalith_keyValueListDestroy(notification.matched); });
}

// ---- Start and stop -----------------------------------------------------------------------------

GatewayModuleData& dataOf(const sonalith_module& module) {
  return *static_cast<GatewayModuleData*>(module.privateData);
}

// Releases everything that a start has built: for a stop, and after a refused start.
void releaseModule(sonalith_module& module) {
  GatewayModuleData* const data = &dataOf(module);
  data->manager.reset();
  delete data;
  module.privateData = nullptr;
  if (module.moduleOffsets != nullptr) sonalith_free(module.moduleOffsets);
  module.moduleOffsets = nullptr;
}

const char* configPath(const sonalith_keyValueList* params) {
  const char* path = nullptr;
  if (params == nullptr || sonalith_keyValueListGetS(params, "gatewayConfigPath", &path) != 0) {
    return "";
  }
  GATEWAY_LOG(SONALITH_LOG_TRACE, "gatewayConfigPath: %s", path);
  return path;
}

void publishEngineSlots(sonalith_module& module, const ConfigManager& config) {
  sonalith_moduleOffsetList* offsets = sonalith_createModuleOffset(nullptr);
  buildEngineSlots(config, dataOf(module).engineSlots, &offsets);
  module.moduleOffsets = offsets;
}

void publishMeterSlots(sonalith_module& module, gRPCGatewayClient& client) {
  module.slowMeterTable = &client.slowMeterTable;
  module.fastMeterTable = &client.fastMeterTable;
  module.slowMeterOffsets = client.slowMeterOffsets;
  module.fastMeterOffsets = client.fastMeterOffsets;
}

// Returns false if the start is refused; the caller then releases what was built.
bool buildModule(sonalith_module& module, const sonalith_keyValueList* params) {
  auto* const data = new GatewayModuleData;
  module.privateData = data;
  const char* const hostPath = configPath(params);
  auto newManager = std::make_unique<ModuleManager>(&module);
  const std::string path = stringFromHost(hostPath);
  newManager->config = std::make_shared<const ConfigManager>(path);
  data->manager = std::move(newManager);

  ModuleManager& manager = *data->manager;
  if (!manager.config->valid) {
    GATEWAY_LOG(SONALITH_LOG_FAULT, "gRPC gateway configuration is not valid!");
    return false;
  }
  publishEngineSlots(module, *manager.config);
  // Changes can arrive as soon as the callback is registered, so the client must exist by then.
  manager.client = std::make_shared<gRPCGatewayClient>(manager.config);
  manager.changeCallbackHandle =
      sonalith_engine_notify_changes_addCallback(module.engine, onEngineChanges, &manager);
  if (manager.changeCallbackHandle == nullptr) return false;
  publishMeterSlots(module, *manager.client);
  return true;
}

// A refused start releases what it has built. After an exception the record keeps it, for a stop to
// release.
std::int32_t startCycle(sonalith_module* module, sonalith_keyValueList* params) {
  try {
    GATEWAY_LOG(SONALITH_LOG_TRACE, "%s(%s, %p)", "startCycle", module->name,
                static_cast<void*>(params));
    if (buildModule(*module, params)) return 0;
    GATEWAY_LOG(SONALITH_LOG_ERROR, "gRPC gateway module error starting");
    releaseModule(*module);
  } catch (const std::exception& exception) {
    logException(SONALITH_LOG_FAULT, exception);
  }
  return -1;
}

void stopCycle(sonalith_module* module) {
  try {
    GATEWAY_LOG(SONALITH_LOG_TRACE, "%s(%s)", "stopCycle", module->name);
    // First hide the tables, so that the host can't reach them while they are released.
    module->slowMeterTable = nullptr;
    module->fastMeterTable = nullptr;
    releaseModule(*module);
  } catch (const std::exception& exception) {
    logException(SONALITH_LOG_FAULT, exception);
  }
}

}  // namespace

ModuleManager::ModuleManager(sonalith_module* record) : module(record) {}

ModuleManager::~ModuleManager() {
  GATEWAY_LOG(SONALITH_LOG_FAULT, "grpc-gateway: destroying module manager..");
  if (changeCallbackHandle != nullptr) {
    sonalith_engine_notify_changes_rmCallback(module->engine, changeCallbackHandle);
  }
  releaseSlots(dataOf(*module).engineSlots);
  client.reset();
  config.reset();
}

}  // namespace gateway

const plugin_entry plugin_entry_0_1 = {
    "grpc-gateway", 0, gateway::startCycle, 0, gateway::stopCycle, 0, 0, 13,
};
