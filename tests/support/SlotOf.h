// A slot whose memory is the test's.
#pragma once

#include <cstdint>

#include "standin/LoadedModule.h"

inline standin::Slot slotOf(standin::SlotSet set, const char* name, std::uint32_t type,
                            void* memory) {
  sonalith_moduleOffset description{};
  description.name = name;
  description.value = memory;
  description.valueType = type;
  return {set, description};
}
