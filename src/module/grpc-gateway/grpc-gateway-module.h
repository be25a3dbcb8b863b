// The module as the host knows it: the descriptor, and behind it start, stop and the notification
// of engine changes.
//
// All state hangs from sonalith_module.privateData; there is none beside it. Who owns what:
//
//   sonalith_module.privateData   GatewayModuleData, until the stop or a refused start
//     manager                     ModuleManager, as long
//       config                    ConfigManager, shared with the client and with work under way
//       client                    gRPCGatewayClient, shared with a notification under way
//     engineSlots                 the engine slots' arrays, given back by ~ModuleManager
//   sonalith_module.moduleOffsets list of the engine slots, until the stop or a refused start
//
// Start builds in the order configuration, engine slots, client, registration, and shows the meter
// tables to the host last. Stop goes the other way: it hides the tables, removes the callback (from
// then on no change can come), gives the engine slots back, stops the client, and releases the
// configuration last, so that nothing outlives it. No lock is needed: the order is the safety.
#pragma once

#include <memory>

#include "host/sonalith.h"
#include "module/grpc-gateway/ConfigManager.h"
#include "module/grpc-gateway/gRPCGatewayClient.h"

// What the host looks for in the loaded file.
extern "C" __attribute__((visibility("default"))) const plugin_entry plugin_entry_0_1;

namespace gateway {

// What a running instance works with. Host threads only.
class ModuleManager {
 public:
  // `record` is the host's and must still hold its privateData when this is destroyed.
  explicit ModuleManager(sonalith_module* record);
  // Accepts an instance at any stage of its start.
  ~ModuleManager();
  ModuleManager(const ModuleManager&) = delete;
  ModuleManager& operator=(const ModuleManager&) = delete;

  std::shared_ptr<const ConfigManager> config;
  std::shared_ptr<gRPCGatewayClient> client;  // in place before the registration
  void* changeCallbackHandle = nullptr;       // null while not registered
  sonalith_module* module;
};

// The private state of one module record.
struct GatewayModuleData {
  std::unique_ptr<ModuleManager> manager;
  GatewaySlotTable engineSlots{};  // its counts stay 0
};

// User argument of the filter: whose changes to pick, and where to put them.
struct EngineChangeFilter {
  ModuleManager* manager;
  sonalith_keyValueList* matched;
};

}  // namespace gateway
