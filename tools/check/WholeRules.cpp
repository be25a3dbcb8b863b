#include "tools/check/WholeRules.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <memory_resource>
#include <unordered_map>
#include <utility>
#include <vector>

#include "tools/check/Target.h"
#include "tools/check/Text.h"
#include "tools/common/ConfiguredSlots.h"

namespace check {
namespace {

enum Set { Fast, Slow, Engine };

constexpr std::array<std::string_view, 3> setNames = {"fast", "slow", "engine"};

Set setOf(const EntryLine& line) {
  if (line.section->kind == SectionKind::EngineEntries) return Engine;
  return line.entry.isSlow ? Slow : Fast;
}

// ---- Settings ---------------------------------------------------------------------------------

MaybeFinding repeatedSetting(const SettingFacts& facts) {
  // indented-line already reports another value of the same pair.
  const auto& [setting, before] = facts;
  if (before == nullptr || setting.isContinuation) return std::nullopt;
  const bool sameFile = before->at.file == setting.at.file;
  return Finding{
      sameFile ? Rule("repeated-setting") : Rule("overridden-setting"), setting.place,
      fmt::format("{} is already set in {}, and this line overrides it", setting.key,
                  nameOf(before->at, setting.at)),
      sameFile ? "remove the line that you do not want" : "nothing to do if this is intended"};
}

Remedy remedyFor(const TargetFault& fault, Span place) {
  if (fault.replacement.empty()) return fault.remedy;
  return {fault.remedy, place, fault.replacement};
}

MaybeFinding badTarget(const SettingFacts& facts) {
  const Setting& setting = facts.setting;
  if (setting.key != "Target" || setting.value.empty() || setting.isContinuation) {
    return std::nullopt;
  }
  const auto fault = faultOf(setting.value);
  if (!fault) return std::nullopt;
  return Finding{"bad-target", setting.place,
                 fmt::format("bad target {}: {}", inQuotes(setting.value), fault->text),
                 remedyFor(*fault, setting.place)};
}

bool isOneOf(std::string_view value, const std::vector<std::string>& words) {
  return !sameNameIn(value, words).empty();
}

// Whether this value of a switch was probably meant as true.
bool meansOn(std::string_view value) {
  static const std::vector<std::string> words = {"yes", "on", "1", "enable", "enabled", "y", "t"};
  return isOneOf(value, words) || !closestName(value, {"true"}).empty() ||
         value.starts_with("true");
}

// Whether it was probably meant as false.
bool meansOff(std::string_view value) {
  static const std::vector<std::string> words = {"no", "off", "0", "disable", "disabled", "n", "f"};
  return isOneOf(value, words) || !closestName(value, {"false"}).empty() ||
         value.starts_with("false");
}

Remedy remedyForSwitch(const Setting& setting) {
  const std::string& value = setting.value;
  if (value.find('#') != value.npos) return "write \" ;\" instead of \"#\" to begin the comment";
  if (meansOn(value)) {
    return {fmt::format("write {}=true to switch it on", setting.key), setting.place, "true"};
  }
  if (meansOff(value)) {
    return safe(
        {fmt::format("write {}=false to switch it off", setting.key), setting.place, "false"});
  }
  return "write true or false";
}

MaybeFinding switchValue(const SettingFacts& facts) {
  const Setting& setting = facts.setting;
  if (setting.key == "Target" || setting.isContinuation) return std::nullopt;
  if (setting.isOn() || sameName(setting.value, "false")) return std::nullopt;
  const std::string what =
      setting.value.empty() ? "an empty value" : "the value " + inQuotes(setting.value);
  return Finding{
      "switch-value", setting.place,
      fmt::format("{} switches {} off, because only \"true\" switches it on", what, setting.key),
      remedyForSwitch(setting)};
}

constexpr std::array<SettingRule, 3> rulesForSettings = {repeatedSetting, badTarget, switchValue};

// ---- Lists ------------------------------------------------------------------------------------

// An entry, and its position in its list.
struct Listed {
  const EntryLine& line;
  Set set;
  std::size_t position;
};

void emptyKey(const Listed& listed, const Report& report) {
  const Entry& entry = listed.line.entry;
  if (!entry.key.empty()) return;
  report(&listed.line.at,
         {"empty-key", entry.place,
          "this entry has no Key, so the module refuses the configuration", "write Key=NAME"});
}

void longCustomKey(const Listed& listed, const Report& report) {
  const Entry& entry = listed.line.entry;
  if (entry.customKey.size() <= tools::slotTextLimit) return;
  report(&listed.line.at,
         {"long-custom-key", entry.customKeyPlace,
          fmt::format("this CustomKey has {} bytes, but a slot name has room for {}, so the module "
                      "refuses the configuration",
                      entry.customKey.size(), tools::slotTextLimit),
          "shorten it"});
}

// Whether it is the same line, because its file is read a second time.
bool isReadAgain(const SourceLine& line, const SourceLine& first) {
  return line.file != first.file && line.number == first.number &&
         line.file->name == first.file->name;
}

void duplicateKey(const Listed& listed, const EntryLine& first, const Report& report) {
  const auto& [line, set, position] = listed;
  const std::string_view type = gateway::nameOf(line.section->type);
  const std::string list = set == Engine ? fmt::format("{} parameters", type)
                                         : fmt::format("{} {} meters", setNames[set], type);
  report(&line.at,
         {"duplicate-key", line.entry.keyPlace,
          fmt::format("the key {} is already in the list of {} ({}), so the module refuses the "
                      "configuration",
                      inQuotes(line.entry.key), list, nameOf(first.at, line.at)),
          isReadAgain(line.at, first.at) ? "name this file only once"
                                         : "remove one of the two entries, or change its key"});
}

void repeatedSlotName(const Listed& listed, std::string_view name, const EntryLine& first,
                      const Report& report) {
  const EntryLine& line = listed.line;
  const bool isGenerated = line.entry.customKey.empty();
  const std::string where = nameOf(first.at, line.at);
  const std::string what =
      isGenerated
          ? fmt::format("{}, the generated name of this slot, is already the CustomKey in {}",
                        inQuotes(name), where)
      : first.entry.customKey.empty()
          ? fmt::format("{} is already the generated name of the slot in {}", inQuotes(name), where)
          : fmt::format("{} is already the CustomKey in {}", inQuotes(name), where);
  report(&line.at,
         {"repeated-slot-name", isGenerated ? line.entry.place : line.entry.customKeyPlace,
          fmt::format("{}, so two {} slots have the same name", what, setNames[listed.set]),
          isGenerated ? "give this entry a CustomKey" : "choose another CustomKey"});
}

// The first line with each key or name. Their memory comes in large pieces, because a large
// configuration has many of them.
using Lines = std::pmr::unordered_map<std::string_view, const EntryLine*>;

struct List {
  Lines keys;
  std::size_t size = 0;
};
using ListsOfTypes = std::vector<List>;
using Lists = std::array<ListsOfTypes, 3>;

// Makes the tables with enough room, so that they are not rebuilt again and again.
void makeRoom(const Configuration& configuration, std::pmr::memory_resource* memory, Lists& lists,
              std::vector<Lines>& names) {
  std::array<std::array<std::size_t, gateway::valueTypes.size()>, 3> sizes{};
  for (const EntryLine& line : configuration.entries) {
    ++sizes[setOf(line)][gateway::indexOf(line.section->type)];
  }
  for (const Set set : {Fast, Slow, Engine}) {
    std::size_t all = 0;
    for (const std::size_t size : sizes[set]) {
      lists[set].push_back({Lines(size, memory)});
      all += size;
    }
    names.emplace_back(all, memory);
  }
}

// For a key that is new in its own list.
void keyInTwoTypes(const Listed& listed, const ListsOfTypes& lists, const Report& report) {
  const EntryLine& line = listed.line;
  for (const auto& row : gateway::valueTypes) {
    const Lines& keys = lists[gateway::indexOf(row.type)].keys;
    if (row.type == line.section->type || keys.empty()) continue;
    const auto other = keys.find(line.entry.key);
    if (other == keys.end()) continue;
    const bool isEngine = listed.set == Engine;
    const std::string_view kind = isEngine ? "parameter" : "meter";
    return report(
        &line.at,
        {"key-in-two-types", line.entry.keyPlace,
         fmt::format("the key {} is {} {} here and {} {} in {}, but {}", inQuotes(line.entry.key),
                     withArticle(line.section->type), kind, withArticle(row.type), kind,
                     nameOf(other->second->at, line.at),
                     isEngine ? "a service expects each key with one type"
                              : "a server sends each key with one type, so one of the slots keeps "
                                "its default"),
         "remove the entry with the wrong type"});
  }
}

void judgeEntries(const Configuration& configuration, const Report& report) {
  std::pmr::monotonic_buffer_resource memory;
  Lists lists;
  std::vector<Lines> names;
  std::deque<std::string> generated;
  makeRoom(configuration, &memory, lists, names);
  for (const EntryLine& line : configuration.entries) {
    const Set set = setOf(line);
    List& list = lists[set][gateway::indexOf(line.section->type)];
    const Listed listed{line, set, list.size++};
    emptyKey(listed, report);
    longCustomKey(listed, report);
    const Entry& entry = line.entry;
    if (!entry.key.empty()) {
      const auto [first, isNew] = list.keys.emplace(entry.key, &line);
      if (isNew)
        keyInTwoTypes(listed, lists[set], report);
      else
        duplicateKey(listed, *first->second, report);
    }
    if (entry.customKey.size() > tools::slotTextLimit) continue;
    std::string_view name = entry.customKey;
    if (name.empty()) {
      name = generated.emplace_back(
          fmt::format("gateway_{}_{}", gateway::nameOf(line.section->type), listed.position));
    }
    const auto [first, isNew] = names[set].emplace(name, &line);
    // Of a line that is read again, duplicate-key is the finding.
    if (isNew || isReadAgain(line.at, first->second->at)) continue;
    repeatedSlotName(listed, first->first, *first->second, report);
  }
}

// ---- Targets ----------------------------------------------------------------------------------

using AllUsers = std::array<Users, 3>;

AllUsers usersOf(const Configuration& configuration) {
  AllUsers users;
  for (const EntryLine& line : configuration.entries) {
    users[setOf(line)].add(line);
  }
  return users;
}

// Both rates are on by default.
bool isOn(const std::optional<Setting>& rate) {
  return !rate || rate->isOn();
}

bool isEmpty(const std::optional<Setting>& target) {
  return !target || target->value.empty();
}

std::string remedyForTarget(std::string_view section, const std::optional<SourceLine>& lost) {
  if (!lost) return fmt::format("write Target=HOST:PORT in [{}]", section);
  return fmt::format("correct {} so that its Target applies to [{}]", nameOf(*lost), section);
}

void at(const Setting& setting, const Report& report, Finding finding) {
  finding.place = setting.place;
  report(&setting.at, std::move(finding));
}

void at(const EntryLine& line, const Report& report, Finding finding) {
  finding.place = line.entry.place;
  report(&line.at, std::move(finding));
}

// Why a meters target is needed, as part of a sentence.
std::string metersNeed(const Configuration& configuration, const AllUsers& users) {
  const auto& fast = configuration.fast;
  const auto& slow = configuration.slow;
  if (!fast && !slow && users[Fast].count + users[Slow].count == 0) {
    return "fast and slow meters are on by default";
  }
  std::vector<std::string> reasons;
  for (const Set set : {Fast, Slow}) {
    const auto& rate = set == Fast ? fast : slow;
    const std::string_view name = setNames[set];
    if (users[set].count > 0) {
      reasons.push_back(fmt::format("there are {} meters ({})", name, linesOf(users[set])));
    } else if (isOn(rate)) {
      reasons.push_back(rate
                            ? fmt::format("{} meters are switched on in {}", name, nameOf(rate->at))
                            : fmt::format("{} meters are on by default", name));
    }
  }
  return fmt::format("{}", fmt::join(reasons, " and "));
}

void noRateEnabled(const Configuration& configuration, const Report& report) {
  const auto& target = configuration.metersTarget;
  const auto& fast = configuration.fast;
  const auto& slow = configuration.slow;
  if (isEmpty(target) || isOn(fast) || isOn(slow)) return;
  at(fast->at.order > slow->at.order ? *fast : *slow, report,
     {"no-rate-enabled",
      {},
      fmt::format("[Meters] has a Target in {}, but fast and slow meters are both off, so the "
                  "module refuses the configuration",
                  nameOf(target->at)),
      "set one of the switches to true, or remove the Target and all meters"});
}

void noMetersTarget(const Configuration& configuration, const AllUsers& users,
                    const Report& report) {
  const auto& target = configuration.metersTarget;
  const auto& fast = configuration.fast;
  const auto& slow = configuration.slow;
  const auto& lost = configuration.lostMetersTarget;
  const bool anyMeter = users[Fast].count + users[Slow].count > 0;
  if (!isEmpty(target) || (!isOn(fast) && !isOn(slow) && !anyMeter)) return;
  const bool mayHaveNone = !anyMeter && !lost;
  Finding finding{
      "no-meters-target",
      {},
      fmt::format("[Meters] has no Target, but {}, so the module refuses the configuration",
                  metersNeed(configuration, users)),
      remedyForTarget("Meters", lost) +
          (mayHaveNone ? ", or switch both rates off with EnableFastMeters=false and "
                         "EnableSlowMeters=false"
                       : "")};
  finding.cause = lost ? &*lost : nullptr;
  const Users& first = users[Fast].count > 0 ? users[Fast] : users[Slow];
  if (target) return at(*target, report, std::move(finding));
  if (anyMeter) return at(*first.first.front(), report, std::move(finding));
  if (fast && fast->isOn()) return at(*fast, report, std::move(finding));
  if (slow && slow->isOn()) return at(*slow, report, std::move(finding));
  report(nullptr, std::move(finding));
}

void noEngineTarget(const Configuration& configuration, const AllUsers& users,
                    const Report& report) {
  const auto& target = configuration.engineTarget;
  if (!isEmpty(target) || users[Engine].count == 0) return;
  Finding finding{"no-engine-target",
                  {},
                  fmt::format("[Engine] has no Target, but there are parameters ({}), so the "
                              "module refuses the configuration",
                              linesOf(users[Engine])),
                  remedyForTarget("Engine", configuration.lostEngineTarget)};
  if (configuration.lostEngineTarget) finding.cause = &*configuration.lostEngineTarget;
  if (target) return at(*target, report, std::move(finding));
  at(*users[Engine].first.front(), report, std::move(finding));
}

void rateOff(const Configuration& configuration, const AllUsers& all, const Report& report) {
  const bool anyRate = isOn(configuration.fast) || isOn(configuration.slow);
  if (isEmpty(configuration.metersTarget) || !anyRate) return;
  for (const Set set : {Fast, Slow}) {
    const auto& rate = set == Fast ? configuration.fast : configuration.slow;
    const Users& users = all[set];
    if (isOn(rate) || users.count == 0) continue;
    at(*users.first.front(), report,
       {"rate-off",
        {},
        fmt::format(
            "{} switches {} meters off, so {} a value ({})", nameOf(rate->at), setNames[set],
            users.count == 1 ? "this slot never gets" : "these slots never get", linesOf(users)),
        fmt::format("write {}=true, or Type={}", rate->key, setNames[set == Fast ? Slow : Fast])});
  }
}

void unusedTarget(const Configuration& configuration, const AllUsers& users, const Report& report) {
  if (configuration.isPartial) return;
  const auto& meters = configuration.metersTarget;
  const auto& engine = configuration.engineTarget;
  const bool anyRate = isOn(configuration.fast) || isOn(configuration.slow);
  if (!isEmpty(meters) && anyRate && users[Fast].count + users[Slow].count == 0) {
    at(*meters, report,
       {"unused-target",
        {},
        "the module receives from this target, but there is no meter that could take a value",
        "add a Meter to [MetersString], [MetersInt], [MetersUint] or [MetersFloat]"});
  }
  if (!isEmpty(engine) && users[Engine].count == 0) {
    at(*engine, report,
       {"unused-target",
        {},
        "there is no parameter that the module could send to this target",
        "add a Param to [EngineString], [EngineInt], [EngineUint] or [EngineFloat]"});
  }
}

}  // namespace

std::optional<Setting>& Configuration::settingOf(SectionKind section, std::string_view key) {
  if (section == SectionKind::Engine) return engineTarget;
  if (key == "Target") return metersTarget;
  return key == "EnableFastMeters" ? fast : slow;
}

void Configuration::noteLostTarget(std::string_view section, const SourceLine& line) {
  const auto has = [&](std::string_view part) {
    const auto same = [](unsigned char a, unsigned char b) { return std::tolower(a) == b; };
    return std::search(section.begin(), section.end(), part.begin(), part.end(), same) !=
           section.end();
  };
  // If the name of the section suggests neither, the Target may belong to either.
  if (!has("eng") && !lostMetersTarget) lostMetersTarget = line;
  if (!has("met") && !lostEngineTarget) lostEngineTarget = line;
}

std::string linesOf(const Users& users) {
  std::vector<std::string> lines;
  for (const EntryLine* line : users.first) lines.push_back(nameOf(line->at));
  const std::size_t more = users.count - lines.size();
  return fmt::format("{}{}", fmt::join(lines, ", "),
                     more > 0 ? fmt::format(" and {} more", more) : "");
}

std::span<const SettingRule> settingRules() {
  return rulesForSettings;
}

void judgeWhole(const Configuration& configuration, const Report& report) {
  const AllUsers users = usersOf(configuration);
  judgeEntries(configuration, report);
  noRateEnabled(configuration, report);
  noMetersTarget(configuration, users, report);
  noEngineTarget(configuration, users, report);
  rateOff(configuration, users, report);
  unusedTarget(configuration, users, report);
}

}  // namespace check
