// Slot names made from keys.
//
// Threads: one at a time.
#pragma once

#include <array>
#include <set>
#include <string>

#include "standin/LoadedModule.h"

namespace discover {

// Gives each key of a set its own name: letters, digits and underscores, at most 99 bytes. No name
// begins with "gateway_", because the module generates such names itself ("gateway_float_3").
class CustomKeys {
 public:
  // Gives this name to no key.
  void reserve(standin::SlotSet set, const std::string& name);

  // "out.level" gets the name "out_level", and "out level" after it "out_level_2".
  std::string nameFor(standin::SlotSet set, const std::string& key);

 private:
  std::array<std::set<std::string>, 3> taken_;
};

}  // namespace discover
