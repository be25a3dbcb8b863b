#include "tools/sim/FaultPlan.h"

#include <fmt/format.h>

#include <algorithm>
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

void readNumber(const FaultKindRow& row, Words& words, Fault& fault) {
  if (words.empty() && row.defaultNumber) {
    fault.number = *row.defaultNumber;
    return;
  }
  fault.argument = takeArgument(row, words);
  const auto number = tools::numberIn<double>(fault.argument);
  if (!number || !(*number > 0 && *number <= longest)) {
    throw Error(fmt::format("{} is not a number above 0 and up to {:.0f}. Usage: {}",
                            shown(fault.argument), longest, row.usage()));
  }
  fault.number = *number;
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
    case FaultArgument::Status:
      readStatus(row, words, fault);
      break;
  }
  if (!words.empty()) {
    throw Error(fmt::format("{} is out of place. Usage: {}", shown(words.front()), row.usage()));
  }
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
  return rowOf(kind).group == FaultGroup::Connection &&
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
    text += tools::manualEntry(row.usage() + (row.lasts() ? " *" : ""), row.meaning, column);
  }
  return text;
}

FaultMoments::FaultMoments(const FaultTimes& times, std::uint64_t seed, std::size_t place)
    : times_(times), random_(hashOf(std::to_string(place), seed)) {}

std::optional<double> FaultMoments::next() {
  if (over_) return std::nullopt;
  over_ = !times_.repeats;
  now_ += times_.first + (times_.last - times_.first) * drawFrom(random_);
  return now_;
}

}  // namespace sim
