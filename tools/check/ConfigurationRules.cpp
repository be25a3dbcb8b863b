#include "tools/check/ConfigurationRules.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <utility>

#include "tools/check/Target.h"
#include "tools/check/Text.h"
#include "tools/common/ConfiguredSlots.h"

namespace check {
namespace {

constexpr std::array<std::string_view, 3> setNames = {"fast", "slow", "engine"};

Diagnostic with(Diagnostic at, Rule rule, std::string text, std::string remedy) {
  constexpr bool inDedicatedFile = false;
  at.rule = rule;
  at.severity = severityOf(textOf(rule).weight, inDedicatedFile);
  at.text = std::move(text);
  at.remedy = std::move(remedy);
  return at;
}

// Whether this value of a switch was probably meant as true.
bool meansOn(std::string_view value) {
  const auto is = [&](std::string_view word) { return sameName(value, word); };
  return is("yes") || is("on") || is("1") || is("enable") || is("enabled") || is("y") || is("t") ||
         !closestName(value, {"true"}).empty() || value.starts_with("true");
}

// Whether it was probably meant as false.
bool meansOff(std::string_view value) {
  const auto is = [&](std::string_view word) { return sameName(value, word); };
  return is("no") || is("off") || is("0") || is("disable") || is("disabled") || is("n") ||
         is("f") || !closestName(value, {"false"}).empty() || value.starts_with("false");
}

std::string remedyForTarget(std::string_view section, const std::string& lost) {
  if (lost.empty()) return fmt::format("write Target=HOST:PORT in [{}]", section);
  return fmt::format("correct {} so that its Target applies to [{}]", lost, section);
}

// "line 4, line 6 and 2 more".
template <class Users>
std::string linesOf(const Users& users) {
  const std::size_t more = users.count - users.lines.size();
  const std::string rest = more > 0 ? fmt::format(" and {} more", more) : "";
  return fmt::format("{}{}", fmt::join(users.lines, ", "), rest);
}

}  // namespace

// ---- Settings ---------------------------------------------------------------------------------

void ConfigurationRules::set(SectionKind section, std::string_view key, Span value,
                             LineReport& report) {
  const std::string_view text = value.of(report.line().text);
  const Span place = value.size > 0 ? value : report.line().body;
  if (section == SectionKind::Engine) {
    setTarget(engineTarget_, text, place, report);
  } else if (sameName(key, "Target")) {
    setTarget(metersTarget_, text, place, report);
  } else {
    const bool isFast = sameName(key, "EnableFastMeters");
    setSwitch(isFast ? fast_ : slow_, isFast ? "EnableFastMeters" : "EnableSlowMeters", text, place,
              report);
  }
}

void ConfigurationRules::replace(Setting& setting, std::string_view key, Span place,
                                 LineReport& report) {
  // Rule::IndentedLine already reports another value of the same pair.
  const bool isContinuation = report.line().kind == LineKind::Continuation;
  if (setting.isGiven && !isContinuation) {
    const bool sameFile = setting.spot.file == report.spot().file;
    report.add(
        sameFile ? Rule::RepeatedSetting : Rule::OverriddenSetting, place,
        fmt::format("{} is already set in {}, and this line overrides it", key,
                    report.nameOf(setting.spot)),
        sameFile ? "remove the line that you do not want" : "nothing to do if this is intended");
  }
  setting.isGiven = true;
  setting.spot = report.spot();
  setting.name = report.ownName();
  setting.at = report.at(place);
}

void ConfigurationRules::setTarget(Setting& setting, std::string_view value, Span place,
                                   LineReport& report) {
  replace(setting, "Target", place, report);
  setting.isEmpty = value.empty();
  if (value.empty() || report.line().kind == LineKind::Continuation) return;
  const auto fault = faultOf(value);
  if (!fault) return;
  report.add(Rule::BadTarget, place, fmt::format("bad target {}: {}", inQuotes(value), fault->text),
             fault->remedy);
}

void ConfigurationRules::setSwitch(Setting& setting, std::string_view key, std::string_view value,
                                   Span place, LineReport& report) {
  replace(setting, key, place, report);
  setting.isOn = sameName(value, "true");
  if (setting.isOn || sameName(value, "false")) return;
  if (report.line().kind == LineKind::Continuation) return;
  const std::string what = value.empty() ? "an empty value" : "the value " + inQuotes(value);
  std::string remedy = "write true or false";
  if (value.find('#') != value.npos) {
    remedy = "write \" ;\" instead of \"#\" to begin the comment";
  } else if (meansOn(value)) {
    remedy = fmt::format("write {}=true to switch it on", key);
  } else if (meansOff(value)) {
    remedy = fmt::format("write {}=false to switch it off", key);
  }
  report.add(Rule::SwitchValue, place,
             fmt::format("{} switches {} off, because only \"true\" switches it on", what, key),
             remedy);
}

// ---- Entries ----------------------------------------------------------------------------------

void ConfigurationRules::add(const Section& section, const Entry& entry, LineReport& report) {
  const bool isMeter = section.kind == SectionKind::MeterEntries;
  const Set set = !isMeter ? Engine : entry.isSlow ? Slow : Fast;
  const auto type = gateway::indexOf(section.type);
  const std::size_t position = sizes_[set][type]++;
  ++entries_;
  noteUser(users_[set], entry, report);
  const std::string list =
      isMeter ? fmt::format("{} {} meters", setNames[set], gateway::nameOf(section.type))
              : fmt::format("{} parameters", gateway::nameOf(section.type));
  checkKey(list, keys_[set][type], entry, report);
  checkName(section, set, position, entry, report);
}

void ConfigurationRules::checkKey(const std::string& list,
                                  std::unordered_map<std::string, Spot>& keys, const Entry& entry,
                                  LineReport& report) {
  if (entry.key.empty()) {
    report.add(Rule::EmptyKey, entry.place,
               "this entry has no Key, so the module refuses the configuration", "write Key=NAME");
    return;
  }
  const auto [first, isNew] = keys.emplace(entry.key, report.spot());
  if (isNew) return;
  report.add(Rule::DuplicateKey, entry.keyPlace,
             fmt::format("the key {} is already in the list of {} ({}), so the module refuses the "
                         "configuration",
                         inQuotes(entry.key), list, report.nameOf(first->second)),
             report.isReadAgain(first->second)
                 ? "name this file only once"
                 : "remove one of the two entries, or change its key");
}

void ConfigurationRules::checkName(const Section& section, Set set, std::size_t position,
                                   const Entry& entry, LineReport& report) {
  const std::string& custom = entry.customKey;
  const bool isGenerated = custom.empty();
  if (custom.size() > tools::slotTextLimit) {
    report.add(
        Rule::LongCustomKey, entry.customKeyPlace,
        fmt::format("this CustomKey has {} bytes, but a slot name has room for {}, so the module "
                    "refuses the configuration",
                    custom.size(), tools::slotTextLimit),
        "shorten it");
    return;
  }
  const std::string name =
      isGenerated ? fmt::format("gateway_{}_{}", gateway::nameOf(section.type), position) : custom;
  const auto [first, isNew] = names_[set].emplace(name, SlotName{report.spot(), isGenerated});
  if (isNew) return;
  const std::string where = report.nameOf(first->second.spot);
  const std::string what =
      isGenerated
          ? fmt::format("{}, the generated name of this slot, is already the CustomKey in {}",
                        inQuotes(name), where)
      : first->second.isGenerated
          ? fmt::format("{} is already the generated name of the slot in {}", inQuotes(name), where)
          : fmt::format("{} is already the CustomKey in {}", inQuotes(name), where);
  report.add(Rule::RepeatedSlotName, isGenerated ? entry.place : entry.customKeyPlace,
             fmt::format("{}, so two {} slots have the same name", what, setNames[set]),
             isGenerated ? "give this entry a CustomKey" : "choose another CustomKey");
}

void ConfigurationRules::noteUser(Users& users, const Entry& entry,
                                  const LineReport& report) const {
  if (users.count++ >= Users::named) return;
  users.lines.push_back(report.ownName());
  if (!users.first) users.first = report.at(entry.place);
}

void ConfigurationRules::noteLostTarget(std::string_view section, const std::string& line) {
  const auto has = [&](std::string_view part) {
    const auto same = [](unsigned char a, unsigned char b) { return std::tolower(a) == b; };
    return std::search(section.begin(), section.end(), part.begin(), part.end(), same) !=
           section.end();
  };
  // If the name of the section suggests neither, the Target may belong to either.
  if (!has("eng") && lostMetersTarget_.empty()) lostMetersTarget_ = line;
  if (!has("met") && lostEngineTarget_.empty()) lostEngineTarget_ = line;
}

// ---- The end ----------------------------------------------------------------------------------

void ConfigurationRules::finish(const std::string& file, std::uint64_t lastOrder,
                                Findings& findings) const {
  const Diagnostic atFile{.file = file, .order = lastOrder + 1};
  judgeMeters(atFile, findings);
  judgeEngine(atFile, findings);
}

// Why a meters target is needed, as part of a sentence; empty if none is needed.
std::string ConfigurationRules::metersNeed() const {
  const auto rate = [](const Setting& setting, std::string_view name) {
    return setting.isGiven ? fmt::format("{} meters are switched on in {}", name, setting.name)
                           : fmt::format("{} meters are on by default", name);
  };
  const bool nothingSaid = !fast_.isGiven && !slow_.isGiven;
  if (nothingSaid && users_[Fast].count + users_[Slow].count == 0) {
    return "fast and slow meters are on by default";
  }
  std::vector<std::string> reasons;
  for (const Set set : {Fast, Slow}) {
    const Users& users = users_[set];
    const Setting& setting = set == Fast ? fast_ : slow_;
    if (users.count > 0) {
      reasons.push_back(fmt::format("there are {} meters ({})", setNames[set], linesOf(users)));
    } else if (setting.isOn) {
      reasons.push_back(rate(setting, setNames[set]));
    }
  }
  return fmt::format("{}", fmt::join(reasons, " and "));
}

void ConfigurationRules::judgeMeters(const Diagnostic& atFile, Findings& findings) const {
  const bool anyRate = fast_.isOn || slow_.isOn;
  const bool anyMeter = users_[Fast].count + users_[Slow].count > 0;
  if (!metersTarget_.isEmpty) {
    if (!anyRate) {
      const bool fastIsLast = fast_.at.order > slow_.at.order;
      findings.add(with(fastIsLast ? fast_.at : slow_.at, Rule::NoRateEnabled,
                        fmt::format("[Meters] has a Target in {}, but fast and slow meters are "
                                    "both off, so the module refuses the configuration",
                                    metersTarget_.name),
                        "set one of the switches to true, or remove the Target and all meters"));
      return;
    }
    judgeRate(fast_, Fast, findings);
    judgeRate(slow_, Slow, findings);
    return;
  }
  if (!anyRate && !anyMeter) return;
  const Users& users = users_[Fast].first ? users_[Fast] : users_[Slow];
  const Diagnostic& at = metersTarget_.isGiven         ? metersTarget_.at
                         : users.first                 ? *users.first
                         : fast_.isGiven && fast_.isOn ? fast_.at
                         : slow_.isGiven && slow_.isOn ? slow_.at
                                                       : atFile;
  findings.add(
      with(at, Rule::NoMetersTarget,
           fmt::format("[Meters] has no Target, but {}, so the module refuses the configuration",
                       metersNeed()),
           remedyForTarget("Meters", lostMetersTarget_) +
               (anyMeter || !lostMetersTarget_.empty()
                    ? ""
                    : ", or switch both rates off with EnableFastMeters=false and "
                      "EnableSlowMeters=false")));
}

void ConfigurationRules::judgeEngine(const Diagnostic& atFile, Findings& findings) const {
  const Users& users = users_[Engine];
  if (!engineTarget_.isEmpty || users.count == 0) return;
  const Diagnostic& at = engineTarget_.isGiven ? engineTarget_.at
                         : users.first         ? *users.first
                                               : atFile;
  findings.add(
      with(at, Rule::NoEngineTarget,
           fmt::format("[Engine] has no Target, but there are parameters ({}), so the module "
                       "refuses the configuration",
                       linesOf(users)),
           remedyForTarget("Engine", lostEngineTarget_)));
}

void ConfigurationRules::judgeRate(const Setting& rate, Set set, Findings& findings) const {
  const Users& users = users_[set];
  if (rate.isOn || users.count == 0) return;
  const std::string_view other = setNames[set == Fast ? Slow : Fast];
  const std::string_view key = set == Fast ? "EnableFastMeters" : "EnableSlowMeters";
  findings.add(
      with(*users.first, Rule::RateOff,
           fmt::format("{} switches {} meters off, so {} a value ({})", rate.name, setNames[set],
                       users.count == 1 ? "this slot never gets" : "these slots never get",
                       linesOf(users)),
           fmt::format("write {}=true, or Type={}", key, other)));
}

}  // namespace check
