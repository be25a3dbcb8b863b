// The module as the host sees it: the descriptor with start and stop, and the notification of
// engine changes.
//
// All state belongs to sonalith_module.privateData; the module has no globals. Ownership:
//
//   sonalith_module.privateData   GatewayModuleData, until the stop or a refused start
//     manager                     ModuleManager, for the same time
//       config                    ConfigManager, shared with the client and with running work
//       client                    gRPCGatewayClient, shared with a running notification
//     engineSlots                 the engine slots' arrays, which ~ModuleManager returns
//   sonalith_module.moduleOffsets list of the engine slots, until the stop or a refused start
//
// Start builds configuration, engine slots, client and registration in this order, and shows the
// meter tables to the host last. Stop reverses it: it hides the tables, removes the callback (no
// change can arrive after that), returns the engine slots, stops the client, and releases the
// configuration last, so that nothing outlives it. This order makes locks unnecessary.
#pragma once

#include <memory>

#include "host/sonalith.h"
#include "module/grpc-gateway/ConfigManager.h"
#include "module/grpc-gateway/gRPCGatewayClient.h"

// The symbol that the host looks up in the loaded file.
extern "C" __attribute__((visibility("default"))) const plugin_entry plugin_entry_0_1;

namespace gateway {

// The objects of a running instance. Host threads only.
class ModuleManager {
 public:
  // The host owns `record`, which must still hold its privateData when this is destroyed.
  explicit ModuleManager(sonalith_module* record);
  // Cleans up whatever stage the start has reached.
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

// The filter's user argument: the module whose changes to pick, and the list to add them to.
struct EngineChangeFilter {
  ModuleManager* manager;
  sonalith_keyValueList* matched;
};

}  // namespace gateway
