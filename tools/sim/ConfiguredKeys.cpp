#include "tools/sim/ConfiguredKeys.h"

#include <fmt/format.h>
#include <google/protobuf/stubs/common.h>

#include <stdexcept>
#include <string_view>

#include "module/grpc-gateway/ConfigManager.h"
#include "standin/Host.h"
#include "tools/common/Configuration.h"
#include "tools/common/ConfiguredSlots.h"
#include "tools/common/Output.h"
#include "tools/common/Words.h"

namespace sim {
namespace {

using standin::SlotSet;

bool canBeSent(const std::string& key) {
  const bool isUtf8 = google::protobuf::internal::IsStructurallyValidUTF8(key);
  if (!isUtf8) {
    tools::say(
        "sim",
        fmt::format("warning: the key \"{}\" is not UTF-8 and does not play: clients would refuse "
                    "every message that contains it",
                    tools::printable(key)));
  }
  return isUtf8;
}

}  // namespace

std::vector<KeySpec> configuredKeys(const std::string& path) {
  tools::requireReadable(path);
  standin::Host host({.keepRecords = false});
  host.setLogSink([](const standin::LogLine& line) { tools::say("sim", line.text); });
  const gateway::ConfigManager config(path);
  if (!config.valid) {
    tools::explainRefusal(path);
    throw std::runtime_error(
        fmt::format("the configuration {} was refused; the findings above say why", path));
  }
  std::vector<KeySpec> keys;
  for (const auto& slot : tools::slotsOf(config)) {
    if (slot.set == SlotSet::Engine || !canBeSent(slot.key)) continue;
    const auto rate = slot.set == SlotSet::Fast ? Method::Fast : Method::Slow;
    keys.push_back({rate, slot.type, slot.key});
  }
  return keys;
}

}  // namespace sim
