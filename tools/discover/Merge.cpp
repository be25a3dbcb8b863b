#include "tools/discover/Merge.h"

#include <fmt/format.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <utility>

#include "standin/MemoryFile.h"
#include "tools/common/Configuration.h"

namespace discover {
namespace {

using gateway::ConfigManager;
using standin::SlotSet;
using tools::ConfiguredSlot;

// The module reads two configurations alike, except for their slots.
bool haveSameSettings(const ConfigManager& one, const ConfigManager& other) {
  return other.valid && one.metersTarget == other.metersTarget &&
         one.engineTarget == other.engineTarget && one.enableFastMeters == other.enableFastMeters &&
         one.enableSlowMeters == other.enableSlowMeters;
}

std::string withLineEnd(const std::string& lines, std::string_view lineEnd) {
  std::string text;
  for (const char byte : lines) {
    if (byte == '\n')
      text += lineEnd;
    else
      text += byte;
  }
  return text;
}

}  // namespace

Existing Existing::read(const std::string& path) {
  tools::requireReadable(path);
  if (!tools::isAccepted(path)) {
    tools::explainRefusal(path);
    throw std::runtime_error(fmt::format(
        "nothing is written, because the module would refuse {}, as explained above", path));
  }
  std::ifstream file(path, std::ios::binary);
  std::string text(std::istreambuf_iterator<char>(file), {});
  if (file.bad()) throw std::runtime_error(fmt::format("can't read {}", path));
  return {std::move(text), path};
}

Existing::Existing(std::string text, const std::string& name)
    : text_(std::move(text)),
      config_(standin::MemoryFile(text_).path()),
      slots_(tools::slotsOf(config_)) {
  if (!config_.metersTarget.empty()) return;
  throw std::runtime_error(
      fmt::format("no meter can be added to {}, because it has no Target in [Meters]", name));
}

Known Existing::known() const {
  Known known{.hasFast = config_.enableFastMeters, .hasSlow = config_.enableSlowMeters};
  for (const ConfiguredSlot& slot : slots_) {
    known.entries.insert({slot.set, slot.type, slot.key});
    known.names.reserve(slot.set, slot.name);
  }
  return known;
}

std::vector<ConfiguredSlot> Existing::silent(const tools::Sightings& sightings) const {
  std::vector<ConfiguredSlot> silent;
  std::copy_if(slots_.begin(), slots_.end(), std::back_inserter(silent), [&](const auto& slot) {
    if (slot.set == SlotSet::Engine) return false;
    const auto* const seen = sightings.find(slot.set, slot.key);
    return seen == nullptr || !seen->has(slot.type);
  });
  return silent;
}

std::string Existing::with(const Draft& draft) const {
  const std::string added = sectionsOf(draft);
  if (added.empty()) return text_;
  const std::size_t newline = text_.find('\n');
  const bool hasReturns = newline != text_.npos && newline > 0 && text_[newline - 1] == '\r';
  const std::string before = text_.ends_with('\n') ? "" : "\n";
  std::string text = text_ + withLineEnd(before + "\n; Added by gatewayctl discover:" + added,
                                         hasReturns ? "\r\n" : "\n");
  checkReadsBack(draft, text);
  return text;
}

void Existing::checkReadsBack(const Draft& draft, const std::string& text) const {
  const ConfigManager config(standin::MemoryFile(text).path());
  if (!haveSameSettings(config_, config)) failReadBack("its settings");
  std::vector<ConfiguredSlot> added;
  auto kept = slots_.begin();
  for (const ConfiguredSlot& slot : tools::slotsOf(config)) {
    if (kept != slots_.end() && slot == *kept)
      ++kept;
    else
      added.push_back(slot);
  }
  if (kept != slots_.end()) failReadBack("slot " + kept->name);
  checkEntries(draft, added);
}

}  // namespace discover
