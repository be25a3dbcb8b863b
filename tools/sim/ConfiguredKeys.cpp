#include "tools/sim/ConfiguredKeys.h"

#include <fmt/format.h>

#include <stdexcept>

#include "module/grpc-gateway/ConfigManager.h"
#include "standin/Host.h"
#include "tools/ConfiguredSlots.h"
#include "tools/Output.h"

namespace sim {
namespace {

using standin::SlotSet;

ValueType typeOf(std::uint32_t slotType) {
  switch (slotType) {
    case SONALITH_SLOT_STRING:
      return ValueType::String;
    case SONALITH_SLOT_INT:
      return ValueType::Int;
    case SONALITH_SLOT_UINT:
      return ValueType::Uint;
    default:
      return ValueType::Float;
  }
}

}  // namespace

std::vector<KeySpec> configuredKeys(const std::string& path) {
  standin::Host host({.keepRecords = false});
  host.setLogSink([](const standin::LogLine& line) {
    tools::writeError(fmt::format("gatewayctl sim: {}\n", line.text));
  });
  const gateway::ConfigManager config(path);
  if (!config.valid) {
    throw std::runtime_error(
        fmt::format("the configuration {} was refused; the messages above tell why", path));
  }
  std::vector<KeySpec> keys;
  for (const auto& slot : tools::slotsOf(config)) {
    if (slot.set == SlotSet::Engine) continue;
    const auto rate = slot.set == SlotSet::Fast ? Method::Fast : Method::Slow;
    keys.push_back({rate, typeOf(slot.valueType), slot.key});
  }
  return keys;
}

}  // namespace sim
