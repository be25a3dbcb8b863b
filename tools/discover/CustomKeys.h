// Names for slots, made of the keys that they show.
//
// Threads: one at a time.
#pragma once

#include <array>
#include <set>
#include <string>

#include "standin/LoadedModule.h"

namespace discover {

// Gives each key of a set a name of its own: letters, digits and underscores, at most 99 bytes.
// None begins with "gateway_", as those do that the module makes up, such as "gateway_float_3".
class CustomKeys {
 public:
  // "out.level" gives "out_level", the next key that would be called so "out_level_2".
  std::string nameFor(standin::SlotSet set, const std::string& key);

 private:
  std::array<std::set<std::string>, 3> taken_;
};

}  // namespace discover
