#include "tools/discover/Draft.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <stdexcept>
#include <tuple>
#include <utility>

#include "standin/MemoryFile.h"
#include "tools/common/ConfiguredSlots.h"
#include "tools/common/EntryText.h"
#include "tools/common/Shown.h"

namespace discover {
namespace {

using standin::SlotSet;
using tools::complaintAboutKey;
using tools::complaintAboutTypes;
using tools::shown;
using tools::typeOf;
using tools::ValueCase;
using tools::WireType;
using tools::wireTypes;
using namespace std::string_view_literals;

// The longest line that the reader takes, without its newline.
constexpr std::size_t lineLimit = 1023;

// What the INI reader takes for white space. After one of these a ";" begins a comment, even in
// quotes.
constexpr std::string_view blanks = " \t\v\f\r";

std::string lineOf(const Finding& finding) {
  std::string line = fmt::format("Meter=Key={} Type={}", tools::entryTextOf(finding.seen.key),
                                 nameOf(finding.seen.rate));
  if (!finding.customKey.empty()) line += " CustomKey=" + finding.customKey;
  return line;
}

std::string complaintAboutSize(std::size_t lineSize) {
  if (lineSize <= lineLimit) return "";
  return fmt::format("its line would have {} bytes, but a line can have {} at most", lineSize,
                     lineLimit);
}

std::string complaintAboutLine(const std::string& line) {
  return complaintAboutSize(line.size());
}

std::string complaintAbout(const Finding& finding) {
  for (const auto& complaint :
       {complaintAboutTypes(finding.seen.types), complaintAboutKey(finding.seen.key),
        complaintAboutLine(lineOf(finding))}) {
    if (!complaint.empty()) return complaint;
  }
  return "";
}

bool isKnown(const SeenKey& seen, const Known& known) {
  return std::any_of(seen.types.begin(), seen.types.end(), [&](ValueCase value) {
    const auto& type = typeOf(value).slotType;
    return type && known.entries.contains({seen.rate, *type, seen.key});
  });
}

std::string complaintAbout(const Finding& finding, const Known& known) {
  const bool isOn = finding.seen.rate == SlotSet::Fast ? known.hasFast : known.hasSlow;
  if (isOn) return complaintAbout(finding);
  return fmt::format("the configuration switches the {} meters off", nameOf(finding.seen.rate));
}

std::optional<gateway::ValueType> slotTypeOf(const Finding& finding) {
  if (!finding.hasNewEntry()) return std::nullopt;
  return typeOf(finding.seen.types.front()).slotType;
}

std::string customKeyOf(Finding finding, const Naming& naming, CustomKeys& names) {
  const auto name = naming(finding.seen.key);
  if (!name) return "";
  finding.customKey = names.nameFor(finding.seen.rate, *name);
  return complaintAboutLine(lineOf(finding)).empty() ? finding.customKey : "";
}

// ---- Reading back ---------------------------------------------------------------------------

// What has to be the same: set, type, key and custom name (or none).
using Meaning = std::tuple<SlotSet, gateway::ValueType, std::string, std::string>;

std::vector<Meaning> meaningOf(const Draft& draft) {
  std::vector<Meaning> meaning;
  for (const Finding& finding : draft.findings) {
    if (!finding.hasNewEntry()) continue;
    meaning.emplace_back(finding.seen.rate, *slotTypeOf(finding), finding.seen.key,
                         finding.customKey);
  }
  std::sort(meaning.begin(), meaning.end());
  return meaning;
}

std::vector<Meaning> meaningOf(const std::vector<tools::ConfiguredSlot>& slots) {
  std::vector<Meaning> meaning;
  meaning.reserve(slots.size());
  for (const auto& slot : slots) {
    meaning.emplace_back(slot.set, slot.type, slot.key, slot.nameIsGenerated ? "" : slot.name);
  }
  std::sort(meaning.begin(), meaning.end());
  return meaning;
}

}  // namespace

bool Draft::hasEntries() const {
  return hasEntries(SlotSet::Fast) || hasEntries(SlotSet::Slow);
}

bool Draft::hasEntries(SlotSet rate) const {
  return std::any_of(findings.begin(), findings.end(), [&](const Finding& finding) {
    return finding.hasEntry() && finding.seen.rate == rate;
  });
}

Draft draftOf(const std::string& target, const std::vector<SeenKey>& keys, const Naming& naming,
              Known known) {
  Draft draft{.target = target, .findings = {}, .remarks = {}};
  for (const SeenKey& seen : keys) {
    Finding finding{.seen = seen, .omitted = "", .customKey = ""};
    finding.isConfigured = isKnown(seen, known);
    if (!finding.isConfigured) finding.omitted = complaintAbout(finding, known);
    if (finding.hasNewEntry()) finding.customKey = customKeyOf(finding, naming, known.names);
    draft.findings.push_back(std::move(finding));
  }
  return draft;
}

std::string complaintAboutTarget(std::string_view target) {
  if (target.empty()) return "it is empty";
  if (target.find('\n') != target.npos) return "it contains a newline";
  if (blanks.find(target.front()) != blanks.npos || blanks.find(target.back()) != blanks.npos) {
    return "it begins or ends with white space";
  }
  for (std::size_t i = 1; i < target.size(); ++i) {
    if (target[i] == ';' && blanks.find(target[i - 1]) != blanks.npos) {
      return "a \";\" after white space begins a comment";
    }
  }
  return complaintAboutSize("Target="sv.size() + target.size());
}

std::string sectionsOf(const Draft& draft) {
  fmt::memory_buffer buffer;
  const auto text = std::back_inserter(buffer);
  for (const WireType& type : wireTypes()) {
    bool first = true;
    for (const Finding& finding : draft.findings) {
      if (!type.slotType || slotTypeOf(finding) != type.slotType) continue;
      if (std::exchange(first, false)) {
        fmt::format_to(text, "\n[{}]\n", rowOf(*type.slotType).meterSection);
      }
      fmt::format_to(text, "{}\n", lineOf(finding));
    }
  }
  return fmt::to_string(buffer);
}

std::string textOf(const Draft& draft) {
  fmt::memory_buffer buffer;
  const auto text = std::back_inserter(buffer);
  for (const auto& remark : draft.remarks) fmt::format_to(text, "; {}\n", remark);
  fmt::format_to(text, "\n[Meters]\nTarget={}\nEnableFastMeters={}\nEnableSlowMeters={}\n",
                 draft.target, draft.hasEntries(SlotSet::Fast), draft.hasEntries(SlotSet::Slow));
  fmt::format_to(text, "{}", sectionsOf(draft));
  bool first = true;
  for (const Finding& finding : draft.findings) {
    if (finding.hasEntry()) continue;
    if (std::exchange(first, false)) fmt::format_to(text, "\n; Not carried:\n");
    fmt::format_to(text, "; {} {}: {}.\n", nameOf(finding.seen.rate), shown(finding.seen.key),
                   finding.omitted);
  }
  return fmt::to_string(buffer);
}

void failReadBack(std::string_view difference) {
  throw std::logic_error(fmt::format(
      "the module would read the configuration differently ({}), so it is not written. This is a "
      "bug of gatewayctl discover: please report it with the output of --json",
      difference));
}

void checkReadsBack(const Draft& draft, const std::string& text) {
  const standin::MemoryFile file(text);
  const gateway::ConfigManager config(file.path());
  if (!config.valid) failReadBack("it would be refused");
  if (config.metersTarget != draft.target) failReadBack("the target differs");
  if (config.enableFastMeters != draft.hasEntries(SlotSet::Fast) ||
      config.enableSlowMeters != draft.hasEntries(SlotSet::Slow)) {
    failReadBack("the enabled streams differ");
  }
  checkEntries(draft, tools::slotsOf(config));
}

void checkEntries(const Draft& draft, const std::vector<tools::ConfiguredSlot>& slots) {
  const auto meant = meaningOf(draft);
  const auto read = meaningOf(slots);
  std::vector<Meaning> different;
  const auto add = std::back_inserter(different);
  std::set_difference(meant.begin(), meant.end(), read.begin(), read.end(), add);
  std::set_difference(read.begin(), read.end(), meant.begin(), meant.end(), add);
  if (!different.empty()) failReadBack("key " + shown(std::get<2>(different.front())));
}

}  // namespace discover
