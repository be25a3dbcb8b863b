#include "tools/sim/FaultPlan.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <span>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "tools/common/ManualText.h"
#include "tools/common/Numbers.h"
#include "tools/common/StatusName.h"
#include "tools/common/Suggestion.h"
#include "tools/common/Terminal.h"
#include "tools/common/Words.h"
#include "tools/sim/Random.h"

namespace sim {
namespace {

using Error = std::invalid_argument;
using Words = std::span<const std::string_view>;

constexpr double longest = 1e9;

std::string shown(std::string_view text) {
  return fmt::format("\"{}\"", text);
}

// The next word. If there is none, an error with this text.
std::string_view take(Words& words, const std::string& error) {
  if (words.empty()) throw Error(error);
  const auto word = words.front();
  words = words.subspan(1);
  return word;
}

// "X is not a fault", with a suggestion if `word` is close to one of `candidates`.
std::string notA(std::string_view what, std::string_view word,
                 const std::vector<std::string>& candidates) {
  const auto suggestion = tools::didYouMean(word, candidates);
  return fmt::format("{} is not a {}{}", shown(word), what, suggestion.empty() ? "." : suggestion);
}

double secondsIn(std::string_view word) {
  const auto problem = tools::checkSeconds(std::string(word));
  if (!problem.empty()) throw Error(problem);
  return *tools::numberIn<double>(word);
}

double secondsAfter(std::string_view word, Words& words) {
  return secondsIn(take(words, fmt::format("{} needs a number of seconds after it", shown(word))));
}

// "5" or "2..6".
void readInterval(std::string_view word, FaultTimes& times) {
  const auto dots = word.find("..");
  times.first = secondsIn(word.substr(0, dots));
  times.last = dots == word.npos ? times.first : secondsIn(word.substr(dots + 2));
  times.repeats = true;
  if (times.first <= 0) {
    throw Error(fmt::format("{} is too often. Write an interval above 0 seconds", shown(word)));
  }
  if (times.last < times.first) {
    throw Error(
        fmt::format("{} is the wrong way round. Write the shorter time first", shown(word)));
  }
}

void readMoment(Words& words, FaultTimes& times) {
  const std::string forms = "Write \"at SECONDS\" or \"every SECONDS\"";
  const auto word = take(words, "there is no time before \":\". " + forms);
  if (word == "at") {
    times.first = times.last = secondsAfter(word, words);
  } else if (word == "every") {
    readInterval(take(words, "\"every\" needs a number of seconds after it"), times);
  } else {
    throw Error(notA("time", word, {"at", "every"}) + " " + forms);
  }
}

FaultTimes timesOf(std::string_view text) {
  const auto all = tools::wordsOf(text);
  Words words(all);
  FaultTimes times;
  readMoment(words, times);
  if (words.empty()) return times;
  const auto word = take(words, "");
  if (word != "for") {
    throw Error(fmt::format("{} is out of place. After the time comes \"for SECONDS\" or \":\"",
                            shown(word)));
  }
  times.duration = secondsAfter(word, words);
  if (!words.empty()) {
    throw Error(
        fmt::format("{} is out of place. After the duration comes \":\"", shown(words.front())));
  }
  return times;
}

const FaultKindRow& rowCalled(std::string_view word) {
  std::vector<std::string> names;
  for (const auto& row : faultKinds()) {
    if (row.name == word) return row;
    names.emplace_back(row.name);
  }
  throw Error(notA("fault", word, names) + " Faults are " + fmt::to_string(fmt::join(names, ", ")));
}

std::vector<Subject> readSubjects(const FaultKindRow& row, Words& words) {
  auto possible = row.subjects();
  const auto subject = words.empty() ? std::nullopt : subjectCalled(words.front());
  if (!subject) return possible;
  if (std::find(possible.begin(), possible.end(), *subject) == possible.end()) {
    throw Error(fmt::format("{} can't act on {}, only on {}", shown(row.name), shown(words.front()),
                            namesOf(possible, " or ")));
  }
  words = words.subspan(1);
  return {*subject};
}

grpc::StatusCode statusIn(std::string_view word) {
  if (const auto status = tools::statusCalled(word)) return *status;
  const auto names = tools::statusNames();
  throw Error(notA("status", word, names) +
              " Use one of: " + fmt::to_string(fmt::join(names, " ")));
}

std::string_view takeArgument(const FaultKindRow& row, Words& words) {
  return take(
      words, fmt::format("{} needs {}. Usage: {}", shown(row.name), row.argumentName, row.usage()));
}

// The number of a text, if it is above 0 and not too large.
std::optional<double> amountIn(std::string_view text) {
  const auto number = tools::numberIn<double>(text);
  return number && *number > 0 && *number <= longest ? number : std::nullopt;
}

void readNumber(const FaultKindRow& row, Words& words, Fault& fault) {
  if (words.empty() && row.defaultNumber) {
    fault.number = *row.defaultNumber;
    return;
  }
  fault.argument = takeArgument(row, words);
  const auto number = amountIn(fault.argument);
  if (!number) {
    throw Error(fmt::format("{} is not a number above 0 and up to {:.0f}. Usage: {}",
                            shown(fault.argument), longest, row.usage()));
  }
  fault.number = *number;
}

struct Unit {
  std::string_view name;
  double factor;
};

// A unit comes before those that its name ends with.
constexpr auto byteUnits = std::to_array<Unit>({
    {"kB", 1e3},
    {"KB", 1e3},
    {"MB", 1e6},
    {"GB", 1e9},
    {"KiB", 1 << 10},
    {"MiB", 1 << 20},
    {"GiB", 1 << 30},
    {"B", 1},
});
constexpr auto timeUnits = std::to_array<Unit>({{"ms", 1e-3}, {"us", 1e-6}, {"s", 1}});

// A number and its unit, which may be missing: then `unit` is null.
struct Measure {
  double number;
  const Unit* unit;

  double value() const { return unit == nullptr ? number : number * unit->factor; }
};

std::optional<Measure> measureIn(std::string_view text, std::span<const Unit> units) {
  const auto found = std::find_if(units.begin(), units.end(),
                                  [&](const Unit& unit) { return text.ends_with(unit.name); });
  const Unit* const unit = found == units.end() ? nullptr : &*found;
  if (unit != nullptr) text.remove_suffix(unit->name.size());
  const auto number = amountIn(text);
  if (!number) return std::nullopt;
  return Measure{*number, unit};
}

void readBytes(const FaultKindRow& row, Words& words, Fault& fault) {
  fault.argument = takeArgument(row, words);
  const auto bytes = measureIn(fault.argument, byteUnits);
  if (!bytes || bytes->value() < 1 || bytes->value() > longest * longest) {
    throw Error(
        fmt::format("{} is not a number of bytes from 1, such as 100, 64kB or 1MB. Usage: {}",
                    shown(fault.argument), row.usage()));
  }
  fault.number = bytes->value();
}

// "5" or "5..20".
void readCount(const FaultKindRow& row, Words& words, Fault& fault) {
  fault.argument = words.empty() ? "" : takeArgument(row, words);
  const std::string_view text = fault.argument;
  if (text.empty()) {
    fault.range = {*row.defaultNumber, *row.defaultNumber};
    return;
  }
  const auto dots = text.find("..");
  const auto least = tools::numberIn<std::uint32_t>(text.substr(0, dots));
  const auto most =
      dots == text.npos ? least : tools::numberIn<std::uint32_t>(text.substr(dots + 2));
  if (!least || !most || *least == 0 || *most < *least) {
    throw Error(fmt::format("{} is not a number from 1, or a range such as 5..20. Usage: {}",
                            shown(text), row.usage()));
  }
  fault.range = {static_cast<double>(*least), static_cast<double>(*most)};
}

Measure timeIn(std::string_view text, const FaultKindRow& row) {
  const auto time = measureIn(text, timeUnits);
  if (time && time->value() <= longest) return *time;
  throw Error(fmt::format("{} is not a time above 0, such as 0.3, 300ms or 20ms+-5ms. Usage: {}",
                          shown(text), row.usage()));
}

// "20ms", "20ms±5ms", or the same in ASCII, "20ms+-5ms".
void readTime(const FaultKindRow& row, Words& words, Fault& fault) {
  fault.argument = takeArgument(row, words);
  const std::string_view text = fault.argument;
  constexpr std::string_view signs[] = {"±", "+-"};
  for (const auto sign : signs) {
    const auto at = text.find(sign);
    if (at == text.npos) continue;
    const auto middle = timeIn(text.substr(0, at), row);
    const auto spread = timeIn(text.substr(at + sign.size()), row);
    if ((middle.unit == nullptr) != (spread.unit == nullptr)) {
      throw Error(fmt::format("{} has only one unit. Write both, such as 20ms+-5ms", shown(text)));
    }
    if (spread.value() > middle.value()) {
      throw Error(fmt::format("{} could be less than 0. Write at most {} after {}", shown(text),
                              text.substr(0, at), sign));
    }
    fault.range = {middle.value() - spread.value(), middle.value() + spread.value()};
    return;
  }
  const double seconds = timeIn(text, row).value();
  fault.range = {seconds, seconds};
}

void readStatus(const FaultKindRow& row, Words& words, Fault& fault) {
  const bool isOptional = row.argumentName.starts_with('[');
  fault.argument = words.empty() && isOptional ? "OK" : takeArgument(row, words);
  fault.status = statusIn(fault.argument);
}

void readArgument(const FaultKindRow& row, Words& words, Fault& fault) {
  switch (row.argument) {
    case FaultArgument::None:
      break;
    case FaultArgument::Number:
      readNumber(row, words, fault);
      break;
    case FaultArgument::Bytes:
      readBytes(row, words, fault);
      break;
    case FaultArgument::Count:
      readCount(row, words, fault);
      break;
    case FaultArgument::Time:
      readTime(row, words, fault);
      break;
    case FaultArgument::Status:
      readStatus(row, words, fault);
      break;
  }
  if (!words.empty()) {
    throw Error(fmt::format("{} is out of place. Usage: {}", shown(words.front()), row.usage()));
  }
}

// Takes "with 10%" off the end of the line.
std::optional<double> takeChance(Words& words) {
  const auto with = std::find(words.begin(), words.end(), "with");
  if (with == words.end()) return std::nullopt;
  const Words after = words.subspan(static_cast<std::size_t>(with - words.begin()) + 1);
  words = words.first(words.size() - after.size() - 1);
  if (after.empty()) throw Error("\"with\" needs a chance after it, such as 10%");
  const auto word = after.front();
  const auto percent =
      word.ends_with('%') ? amountIn(word.substr(0, word.size() - 1)) : std::nullopt;
  // A smaller chance would take long to draw the next moment.
  if (!percent || *percent < 0.001 || *percent > 100) {
    throw Error(fmt::format("{} is not a chance from 0.001% to 100%, such as 10%", shown(word)));
  }
  if (after.size() > 1) {
    throw Error(fmt::format("{} is out of place. The line ends after the chance", shown(after[1])));
  }
  return percent;
}

void checkDuration(const FaultKindRow& row, const FaultTimes& times) {
  if (!times.duration) return;
  if (!row.lasts()) {
    throw Error(fmt::format("{} is over at once. Leave out \"for\"", shown(row.name)));
  }
  if (times.repeats && *times.duration >= times.first) {
    throw Error(fmt::format("\"for {}\" is too long. Write less than the interval of {} seconds",
                            *times.duration, times.first));
  }
}

}  // namespace

bool Fault::needsRelay(Subject address) const {
  if (kind == FaultKind::Half) return address == Subject::Meters;
  return rowOf(kind).isOfConnections() &&
         std::find(subjects.begin(), subjects.end(), address) != subjects.end();
}

Fault parseFault(std::string_view line) {
  const auto colon = line.find(':');
  if (colon == line.npos) {
    throw Error(
        fmt::format("{} has no \":\". Write WHEN: FAULT, such as at 2: end fast", shown(line)));
  }
  const auto times = timesOf(line.substr(0, colon));
  auto fault = parseImmediateFault(line.substr(colon + 1));
  fault.times = times;
  checkDuration(rowOf(fault.kind), fault.times);
  return fault;
}

Fault parseImmediateFault(std::string_view line) {
  const auto all = tools::wordsOf(line);
  Words words(all);
  Fault fault;
  const auto& row =
      rowCalled(take(words, "there is no fault after \":\". Write one, such as at 2: end fast"));
  fault.kind = row.kind;
  fault.percent = takeChance(words);
  fault.subjects = readSubjects(row, words);
  readArgument(row, words, fault);
  return fault;
}

FaultPlan readFaultPlan(const std::string& path) {
  std::ifstream file(path);
  if (!file) {
    throw std::runtime_error(fmt::format("can't read the fault plan {}: {}", path,
                                         std::generic_category().message(errno)));
  }
  FaultPlan plan;
  std::string problems;
  int number = 0;
  for (std::string line; std::getline(file, line);) {
    ++number;
    line.resize(std::min(line.find('#'), line.size()));
    if (tools::wordsOf(line).empty()) continue;
    try {
      plan.push_back(parseFault(line));
    } catch (const std::invalid_argument& error) {
      problems +=
          fmt::format("{}{}:{}: {}", problems.empty() ? "" : "\n", path, number, error.what());
    }
  }
  if (file.bad()) {
    throw std::runtime_error(
        fmt::format("can't read the fault plan {}: it is a folder, or reading failed", path));
  }
  if (!problems.empty()) throw std::runtime_error(problems);
  return plan;
}

std::string faultManual() {
  constexpr std::size_t column = 36;
  std::string text;
  for (const auto& row : faultKinds()) {
    const auto* const marks = row.strikesEach ? " *%" : row.lasts() ? " *" : "";
    text += tools::manualEntry(row.usage() + marks, row.meaning, column);
  }
  return text;
}

FaultMoments::FaultMoments(const Fault& fault, std::uint64_t seed, std::size_t place)
    : times_(fault.times),
      chance_(rowOf(fault.kind).strikesEach ? 1 : fault.chance()),
      random_(hashOf(std::to_string(place), seed)) {}

std::optional<double> FaultMoments::next() {
  while (!over_) {
    over_ = !times_.repeats;
    now_ += times_.first + (times_.last - times_.first) * drawFrom(random_);
    if (chance_ >= 1 || drawFrom(random_) < chance_) return now_;
  }
  return std::nullopt;
}

}  // namespace sim
