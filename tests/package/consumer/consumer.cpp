// A minimal module: it has no slots, and only logs its start and stop.
#include <sonalith.h>

namespace {

int32_t start(sonalith_module* module, sonalith_keyValueList*) {
  sonalith_log(SONALITH_LOG_TRACE, "consumer.cpp", __LINE__, 1, "%s", "consumer started");
  module->moduleOffsets = sonalith_createModuleOffset(nullptr);
  module->slowMeterOffsets = sonalith_createModuleOffset(nullptr);
  module->fastMeterOffsets = sonalith_createModuleOffset(nullptr);
  // Not null, so that the host calls stop.
  module->privateData = module;
  return 0;
}

void stop(sonalith_module* module) {
  sonalith_free(module->fastMeterOffsets);
  sonalith_free(module->slowMeterOffsets);
  sonalith_free(module->moduleOffsets);
  module->moduleOffsets = nullptr;
  module->privateData = nullptr;
  sonalith_log(SONALITH_LOG_TRACE, "consumer.cpp", __LINE__, 1, "%s", "consumer stopped");
}

}  // namespace

extern "C" const plugin_entry plugin_entry_0_1;
const plugin_entry plugin_entry_0_1 = {"consumer", 0, start, 0, stop, 0, 0, 13};
