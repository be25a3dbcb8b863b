#include "tools/check/ServerRules.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cctype>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "tools/check/EntryWords.h"
#include "tools/check/Text.h"
#include "tools/common/EntryText.h"
#include "tools/common/Suggestion.h"

namespace check {
namespace {

using standin::SlotSet;
using tools::SeenKey;

SlotSet rateOf(const EntryLine& line) {
  return line.entry.isSlow ? SlotSet::Slow : SlotSet::Fast;
}

SlotSet otherThan(SlotSet rate) {
  return rate == SlotSet::Fast ? SlotSet::Slow : SlotSet::Fast;
}

bool isMeter(const EntryLine& line) {
  return line.section->kind == SectionKind::MeterEntries;
}

// ---- Similar keys -----------------------------------------------------------------------------

std::string lowerCase(std::string_view text) {
  std::string lower(text);
  for (char& each : lower) each = static_cast<char>(std::tolower(static_cast<unsigned char>(each)));
  return lower;
}

// Whether two different words differ only in their digits: they are two of a numbered series.
bool areNumbered(std::string a, std::string b) {
  if (a == b) return false;
  const auto isDigit = [](unsigned char each) { return std::isdigit(each) != 0; };
  std::erase_if(a, isDigit);
  std::erase_if(b, isDigit);
  return a == b;
}

// Finds keys that differ from a word in case or in one letter: a wrong, missing, extra or swapped
// one. Two such words have a variant in common: the word itself, or the word without one letter.
class SimilarKeys {
 public:
  void add(const std::string& key) {
    if (key.size() > longest || (count_ += key.size() + 1) > most) return;
    forEachVariant(key, [&](std::size_t variant) { keys_.emplace(variant, &key); });
  }

  // The key that was probably meant by the word; null if there is none. Points to an added key.
  const std::string* similarTo(const std::string& word) const {
    if (word.size() > longest + 1) return nullptr;
    std::set<std::pair<bool, std::string>> found;  // those that differ only in case come first
    std::unordered_map<std::string, const std::string*> places;
    const std::string lower = lowerCase(word);
    forEachVariant(word, [&](std::size_t variant) {
      const auto [begin, end] = keys_.equal_range(variant);
      for (auto each = begin; each != end; ++each) {
        const std::string& key = *each->second;
        // Different variants can have the same hash.
        if (tools::closestTo(lower, {lowerCase(key)}).empty()) continue;
        if (areNumbered(lower, lowerCase(key))) continue;
        found.emplace(lower != lowerCase(key), key);
        places.emplace(key, &key);
      }
    });
    return found.empty() ? nullptr : places[found.begin()->second];
  }

 private:
  // Bounds for a key and for the table of variants, since a server may send any keys.
  static constexpr std::size_t longest = 128;
  static constexpr std::size_t most = 400000;

  template <class Use>
  static void forEachVariant(const std::string& word, const Use& use) {
    const std::string lower = lowerCase(word);
    const std::hash<std::string> hash;
    use(hash(lower));
    for (std::size_t i = 0; i < lower.size(); ++i) {
      if (i > 0 && lower[i] == lower[i - 1]) continue;  // the same variant as before
      use(hash(std::string(lower).erase(i, 1)));
    }
  }

  std::unordered_multimap<std::size_t, const std::string*> keys_;  // by hash of the variant
  std::size_t count_ = 0;                                          // of variants
};

// ---- Remedies ---------------------------------------------------------------------------------

// The edit that gives a meter this rate, if the line allows one.
Remedy rateRemedy(const EntryLine& line, SlotSet rate) {
  const std::string text = fmt::format("Type={}", nameOf(rate));
  const Span whole = line.entry.place;
  const std::string_view value = whole.of(line.at.text);
  const EntryWords entry = entryWordsOf(value);
  const auto& words = entry.words;
  const auto inLine = [&](Span place) { return Span{whole.begin + place.begin, place.size}; };
  for (auto word = words.rbegin(); word != words.rend(); ++word) {
    if (fieldOf(word->text).name == "Type") return write(inLine(word->place), text);
  }
  if (words.empty()) return "write " + text;
  return {"write " + text, inLine({words.back().place.end(), 0}), " " + text};
}

// The edit that replaces the key of an entry, if the line allows one.
Remedy keyRemedy(const EntryLine& line, const std::string& key) {
  const Span place = line.entry.keyPlace;
  const bool isValue = place.begin > 0 && line.at.text[place.begin - 1] == '=';
  if (!isValue || !tools::complaintAboutKey(key).empty()) {
    return fmt::format("did you mean {}?", inQuotes(key));
  }
  return ask(place, tools::entryTextOf(key));
}

// ---- Judging ----------------------------------------------------------------------------------

// A list of meters.
using List = std::pair<SlotSet, ValueType>;

// "an int", but "a uint".
std::string article(std::string_view type) {
  return fmt::format("{} {}", std::string_view("aeio").find(type.front()) != type.npos ? "an" : "a",
                     type);
}

// "as an int", "as several types (int, float)" or "without a value".
std::string typesOf(const SeenKey& seen) {
  const auto names = tools::namesOf(seen.types);
  if (names.size() > 1) return fmt::format("as several types ({})", fmt::join(names, ", "));
  if (seen.types.front() == tools::ValueCase::VALUE_NOT_SET) return "without a value";
  return fmt::format("as {}", article(names.front()));
}

// The type of the slot that could take the key; nothing if no slot or several could.
std::optional<ValueType> slotTypeOf(const SeenKey& seen) {
  return seen.types.size() == 1 ? tools::typeOf(seen.types.front()).slotType : std::nullopt;
}

class ServerJudge {
 public:
  ServerJudge(const Configuration& configuration, const HeardServer& server, const Report& report)
      : configuration_(configuration), server_(server), report_(report) {
    for (const EntryLine& line : configuration.entries) {
      if (!isMeter(line)) continue;
      lists_[listOf(line)].emplace(line.entry.key, &line);
      configured_.insert(line.entry.key);
    }
    for (const SlotSet rate : {SlotSet::Fast, SlotSet::Slow}) {
      for (const SeenKey& seen : server.sightings.keysOf(rate)) {
        const auto type = slotTypeOf(seen);
        if (type && !configured_.contains(seen.key)) similar_[{rate, *type}].add(seen.key);
      }
    }
  }

  void operator()() {
    for (const tools::StreamProblem& problem : server_.problems) judgeStream(problem);
    for (const EntryLine& line : configuration_.entries) {
      if (!isReceived(line)) continue;
      if (isHeard(rateOf(line)))
        judgeKey(line);
      else
        judgeRate(line);
    }
    judgeOtherKeys();
  }

 private:
  static List listOf(const EntryLine& line) { return {rateOf(line), line.section->type}; }

  const std::optional<Setting>& switchOf(SlotSet rate) const {
    return rate == SlotSet::Fast ? configuration_.fast : configuration_.slow;
  }
  bool isOn(SlotSet rate) const { return !switchOf(rate) || switchOf(rate)->isOn(); }
  bool isReceived(const EntryLine& line) const { return isMeter(line) && isOn(rateOf(line)); }
  // Otherwise a problem of the stream is why its keys are missing.
  bool isHeard(SlotSet rate) const { return !server_.sightings.keysOf(rate).empty(); }

  // The line that takes this key already; null if there is none.
  const EntryLine* lineOf(const List& list, const std::string& key) const {
    const auto found = lists_.find(list);
    if (found == lists_.end()) return nullptr;
    const auto line = found->second.find(key);
    return line == found->second.end() ? nullptr : line->second;
  }

  // The line of the target, if it is this server; otherwise null.
  const Setting* target() const {
    const auto& setting = configuration_.metersTarget;
    return setting && setting->value == server_.name ? &*setting : nullptr;
  }
  // Reports a finding about a setting, or about the file as a whole if it is null.
  void reportAt(const Setting* setting, Finding finding) const {
    if (setting != nullptr) finding.place = setting->place;
    report_(setting != nullptr ? &setting->at : nullptr, std::move(finding));
  }

  void judgeStream(const tools::StreamProblem& problem);
  void judgeKey(const EntryLine& line);
  void judgeType(const EntryLine& line, const SeenKey& seen);
  bool judgeRate(const EntryLine& line);
  Remedy remedyForList(const EntryLine& line, const List& list) const;
  void judgeOtherKeys();

  const Configuration& configuration_;
  const HeardServer& server_;
  const Report& report_;
  std::map<List, std::unordered_map<std::string_view, const EntryLine*>> lists_;
  std::unordered_set<std::string_view> configured_;    // the keys of all meters
  std::map<List, SimilarKeys> similar_;                // the keys that no meter has
  std::set<std::pair<List, std::string_view>> meant_;  // those of them that a meter probably means
};

// A stream without meters is of no concern.
void ServerJudge::judgeStream(const tools::StreamProblem& problem) {
  Users users;
  bool isSilent = true;
  for (const EntryLine& line : configuration_.entries) {
    const bool has =
        std::find(problem.rates.begin(), problem.rates.end(), rateOf(line)) != problem.rates.end();
    if (!has || !isReceived(line)) continue;
    users.add(line);
    isSilent = isSilent && !isHeard(rateOf(line));
  }
  if (users.count == 0) return;
  std::string advice = problem.advice;
  advice.front() = static_cast<char>(std::tolower(static_cast<unsigned char>(advice.front())));
  if (advice.ends_with('.')) advice.pop_back();
  const auto& rate = switchOf(problem.rates.front());
  reportAt(rate && problem.rates.size() == 1 ? &*rate : target(),
           {"bad-stream",
            {},
            isSilent ? fmt::format("{}, so {} ({})", problem.text,
                                   users.count == 1 ? "this slot keeps its default"
                                                    : "these slots keep their defaults",
                                   linesOf(users))
                     : problem.text,
            advice});
}

// What to do if the key of the line comes in another list.
Remedy ServerJudge::remedyForList(const EntryLine& line, const List& list) const {
  const auto& [rate, type] = list;
  if (const EntryLine* const other = lineOf(list, line.entry.key)) {
    return fmt::format("remove this line, since {} takes the key", nameOf(other->at, line.at));
  }
  const bool sameType = type == line.section->type;
  const std::string_view section = gateway::rowOf(type).meterSection;
  const std::string name(nameOf(rate));
  const std::string on = isOn(rate) ? "" : fmt::format(" and {}=true", switchOf(rate)->key);
  if (sameType && on.empty()) return rateRemedy(line, rate);
  if (sameType) return fmt::format("write Type={}{}", name, on);
  if (rate == rateOf(line)) return fmt::format("move the line to [{}]", section);
  return fmt::format("move the line to [{}] and write Type={}{}", section, name, on);
}

// For a key that came on the stream of its meter, but never with the type of its list.
void ServerJudge::judgeType(const EntryLine& line, const SeenKey& seen) {
  const std::string_view wanted = gateway::nameOf(line.section->type);
  const auto type = slotTypeOf(seen);
  report_(&line.at,
          {"other-type-sent", line.entry.keyPlace,
           fmt::format("the server sends the key {} {}, so this {} slot keeps its default",
                       inQuotes(line.entry.key), typesOf(seen), wanted),
           type ? remedyForList(line, {seen.rate, *type})
                : Remedy(fmt::format("make the server send {} values", wanted))});
}

// For a key that did not come on the stream of its meter. Returns whether it came on the other one.
bool ServerJudge::judgeRate(const EntryLine& line) {
  const SlotSet rate = otherThan(rateOf(line));
  const SeenKey* const seen = server_.sightings.find(rate, line.entry.key);
  if (seen == nullptr) return false;
  const ValueType own = line.section->type;
  const auto type = seen->has(own) ? std::optional(own) : slotTypeOf(*seen);
  const std::string as = seen->has(own) ? "" : fmt::format(", and {}", typesOf(*seen));
  report_(&line.at,
          {"other-rate-sent", line.entry.keyPlace,
           fmt::format("the server sends the key {} on the {} stream{}, so this {} slot keeps its "
                       "default",
                       inQuotes(line.entry.key), nameOf(rate), as, nameOf(rateOf(line))),
           type ? remedyForList(line, {rate, *type})
                : Remedy(fmt::format("make the server send {} values", gateway::nameOf(own)))});
  return true;
}

void ServerJudge::judgeKey(const EntryLine& line) {
  const std::string& key = line.entry.key;
  if (const SeenKey* const seen = server_.sightings.find(rateOf(line), key)) {
    if (!seen->has(line.section->type)) judgeType(line, *seen);
    return;
  }
  if (judgeRate(line)) return;
  const std::string* const meant = similar_[listOf(line)].similarTo(key);
  // Two meters of a list can't mean the same key.
  if (meant != nullptr && meant_.emplace(listOf(line), *meant).second) {
    report_(&line.at, {"misspelt-key", line.entry.keyPlace,
                       fmt::format("the server never sent the key {}, but it sent {}, so this slot "
                                   "keeps its default",
                                   inQuotes(key), inQuotes(*meant)),
                       keyRemedy(line, *meant)});
    return;
  }
  report_(&line.at,
          {"key-not-sent", line.entry.keyPlace,
           fmt::format("the server did not send the key {} within {:.3g} seconds, so this slot "
                       "keeps its default",
                       inQuotes(key), server_.seconds),
           "correct the key, make the server send it, or listen longer"});
}

void ServerJudge::judgeOtherKeys() {
  constexpr std::size_t named = 4;
  std::size_t count = 0;
  std::vector<std::string> first;
  for (const SlotSet rate : {SlotSet::Fast, SlotSet::Slow}) {
    for (const SeenKey& seen : server_.sightings.keysOf(rate)) {
      const auto type = slotTypeOf(seen);
      const bool isMeant = type && meant_.contains({{rate, *type}, seen.key});
      if (configured_.contains(seen.key) || isMeant) continue;
      if (count++ >= named) continue;
      first.push_back(fmt::format("{} {} {}", nameOf(rate),
                                  fmt::join(tools::namesOf(seen.types), "/"), inQuotes(seen.key)));
    }
  }
  if (count == 0) return;
  reportAt(target(), {"unused-keys",
                      {},
                      fmt::format("the server also sends {} that no meter takes: {}{}",
                                  counted(count, "key"), fmt::join(first, ", "),
                                  count > named ? fmt::format(" and {} more", count - named) : ""),
                      "add a Meter for each key that you need; gatewayctl discover writes them"});
}

}  // namespace

void judgeServer(const Configuration& configuration, const HeardServer& server,
                 const Report& report) {
  ServerJudge(configuration, server, report)();
}

}  // namespace check
