// Adds what a server sends to a configuration that exists. The new entries follow all others, so
// each existing slot keeps its name and its position in its list. Comments and settings stay.
//
// Threads: one at a time. A standin::Host must exist, because the module's own ConfigManager reads
// the configurations, and logs through the host.
#pragma once

#include <string>
#include <vector>

#include "tools/common/ConfiguredSlots.h"
#include "tools/discover/Draft.h"

namespace discover {

class Existing {
 public:
  // Has the checker explain why the module would refuse the file, if it would. Throws
  // std::runtime_error then, and if the file has no target for meters.
  static Existing read(const std::string& path);
  // The same with a text that the module accepts. Messages call the file `name`.
  Existing(std::string text, const std::string& name);

  const std::string& target() const { return config_.metersTarget; }
  Known known() const;

  // The slots of meters that did not come with their rate and type.
  std::vector<tools::ConfiguredSlot> silent(const tools::Sightings& sightings) const;

  // The text of the file with the new entries of the draft at its end. Throws std::logic_error
  // unless the module reads from it the same as before and, after that, what the draft means.
  std::string with(const Draft& draft) const;

 private:
  void checkReadsBack(const Draft& draft, const std::string& text) const;

  std::string text_;
  gateway::ConfigManager config_;
  std::vector<tools::ConfiguredSlot> slots_;
};

}  // namespace discover
