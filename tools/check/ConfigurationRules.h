// Rules that need the whole configuration: settings that override each other, repeated keys and
// names, missing targets.
//
// It builds the module's lists and settings line by line, and remembers where each came from.
// Memory: grows with the number of entries, as the module's does.
// Threads: one at a time.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "tools/check/EntryRules.h"
#include "tools/check/LineReport.h"
#include "tools/check/Vocabulary.h"

namespace check {

class ConfigurationRules {
 public:
  // Takes a line of [Meters] or [Engine] whose key is known.
  void set(SectionKind section, std::string_view key, Span value, LineReport& report);

  // Takes an entry that the module appends.
  void add(const Section& section, const Entry& entry, LineReport& report);

  // Remembers the line of a misplaced or misspelt Target, which the module ignores, and the name of
  // the section above it. The report of a missing target then names this line.
  void noteLostTarget(std::string_view section, const std::string& line);

  std::size_t entries() const { return entries_; }

  // Checks the whole configuration. Call this once, after the last line; `file` is the main file.
  void finish(const std::string& file, std::uint64_t lastOrder, Findings& findings) const;

 private:
  enum Set { Fast, Slow, Engine };

  struct Setting {
    bool isGiven = false;
    Spot spot;
    std::string name;  // of the line, for messages
    Diagnostic at;
    bool isOn = true;     // of a switch
    bool isEmpty = true;  // of a target
  };

  struct SlotName {
    Spot spot;
    bool isGenerated = false;
  };

  // The entries of a set: how many there are, and the lines of the first few.
  struct Users {
    static constexpr std::size_t named = 4;
    std::size_t count = 0;
    std::vector<std::string> lines;
    std::optional<Diagnostic> first;
  };

  void setTarget(Setting& setting, std::string_view value, Span place, LineReport& report);
  void setSwitch(Setting& setting, std::string_view key, std::string_view value, Span place,
                 LineReport& report);
  static void replace(Setting& setting, std::string_view key, Span place, LineReport& report);
  void checkKey(const std::string& list, std::unordered_map<std::string, Spot>& keys,
                const Entry& entry, LineReport& report);
  void checkName(const Section& section, Set set, std::size_t position, const Entry& entry,
                 LineReport& report);
  void noteUser(Users& users, const Entry& entry, const LineReport& report) const;
  void judgeMeters(const Diagnostic& atFile, Findings& findings) const;
  void judgeEngine(const Diagnostic& atFile, Findings& findings) const;
  void judgeRate(const Setting& rate, Set set, Findings& findings) const;
  std::string metersNeed() const;

  Setting metersTarget_;
  Setting engineTarget_;
  Setting fast_;
  Setting slow_;
  std::array<std::array<std::unordered_map<std::string, Spot>, gateway::valueTypes.size()>, 3>
      keys_;  // by set and type
  std::array<std::array<std::size_t, gateway::valueTypes.size()>, 3> sizes_{};
  std::array<std::unordered_map<std::string, SlotName>, 3> names_;
  std::array<Users, 3> users_;
  std::string lostMetersTarget_;  // the line of a misplaced one
  std::string lostEngineTarget_;  // likewise
  std::size_t entries_ = 0;
};

}  // namespace check
