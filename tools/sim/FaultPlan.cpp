#include "tools/sim/FaultPlan.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <fstream>
#include <span>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "tools/common/StatusName.h"
#include "tools/common/Suggestion.h"
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

// The word after the last one that was read, or an error about what is missing.
std::string_view take(Words& words, std::string_view wanted) {
  if (words.empty()) throw Error(fmt::format("{} is missing", wanted));
  const auto word = words.front();
  words = words.subspan(1);
  return word;
}

std::optional<double> numberIn(std::string_view word) {
  double number = 0;
  const auto end = word.data() + word.size();
  const auto [stopped, error] = std::from_chars(word.data(), end, number);
  const bool good = error == std::errc() && stopped == end && std::isfinite(number);
  if (!good || number < 0 || number > longest) return std::nullopt;
  return number;
}

double secondsIn(std::string_view word) {
  if (const auto seconds = numberIn(word)) return *seconds;
  throw Error(fmt::format("{} is not a time: seconds, such as 2 or 0.5", shown(word)));
}

// "5" or "2..6".
void readPeriod(std::string_view word, FaultTimes& times) {
  const auto dots = word.find("..");
  times.first = secondsIn(word.substr(0, dots));
  times.last = dots == word.npos ? times.first : secondsIn(word.substr(dots + 2));
  times.repeats = true;
  if (times.first <= 0) {
    throw Error(fmt::format("{} is too often: the time between two is more than 0", shown(word)));
  }
  if (times.last < times.first) {
    throw Error(fmt::format("{} goes backward: the shorter time comes first", shown(word)));
  }
}

FaultTimes timesOf(std::string_view text) {
  const auto all = tools::wordsOf(text);
  Words words(all);
  FaultTimes times;
  const auto how = take(words, "when it happens, such as \"at 2\" or \"every 5\",");
  if (how == "at") {
    times.first = times.last = secondsIn(take(words, "the time after \"at\""));
  } else if (how == "every") {
    readPeriod(take(words, "the time after \"every\""), times);
  } else {
    throw Error(fmt::format("{} does not tell when: at SECONDS, or every SECONDS{}", shown(how),
                            tools::didYouMean(how, {"at", "every"})));
  }
  if (words.empty()) return times;
  const auto behind = take(words, "");
  if (behind != "for") {
    throw Error(fmt::format("{} is too much: behind the time comes \"for SECONDS\" or \":\"",
                            shown(behind)));
  }
  times.duration = secondsIn(take(words, "the time after \"for\""));
  if (!words.empty()) throw Error(fmt::format("{} is too much before \":\"", shown(words[0])));
  return times;
}

const FaultKindRow& rowCalled(std::string_view word) {
  std::vector<std::string> names;
  for (const auto& row : faultKinds()) {
    if (row.name == word) return row;
    names.emplace_back(row.name);
  }
  throw Error(
      fmt::format("{} is not a fault{} There are {}", shown(word),
                  tools::closestTo(word, names).empty() ? "." : tools::didYouMean(word, names),
                  fmt::join(names, ", ")));
}

std::vector<Subject> readSubjects(const FaultKindRow& row, Words& words) {
  auto possible = row.subjects();
  const auto subject = words.empty() ? std::nullopt : subjectCalled(words.front());
  if (!subject) return possible;
  if (std::find(possible.begin(), possible.end(), *subject) == possible.end()) {
    throw Error(fmt::format("{} can't befall {}: only {}", shown(row.name), shown(words.front()),
                            namesOf(possible)));
  }
  words = words.subspan(1);
  return {*subject};
}

grpc::StatusCode statusIn(std::string_view word) {
  if (const auto status = tools::statusCalled(word)) return *status;
  const auto names = tools::statusNames();
  throw Error(
      fmt::format("{} is not a status{} one of: {}", shown(word),
                  tools::closestTo(word, names).empty() ? ";" : tools::didYouMean(word, names),
                  fmt::join(names, " ")));
}

void readNumber(const FaultKindRow& row, Words& words, Fault& fault) {
  if (words.empty() && row.defaultNumber) {
    fault.number = *row.defaultNumber;
    return;
  }
  fault.argument = take(words, fmt::format("{} after {}", row.argumentName, shown(row.name)));
  const auto number = numberIn(fault.argument);
  if (!number || *number == 0) {
    throw Error(fmt::format("{} is not {}: a number above 0; usage: {}", shown(fault.argument),
                            row.argumentName, row.usage()));
  }
  fault.number = *number;
}

void readArgument(const FaultKindRow& row, Words& words, Fault& fault) {
  if (row.argument == FaultArgument::Number) {
    readNumber(row, words, fault);
  } else if (row.argument == FaultArgument::Status) {
    const bool optional = row.argumentName.starts_with('[');
    fault.argument = words.empty() && optional ? "OK" : take(words, "the status");
    fault.status = statusIn(fault.argument);
  }
  if (!words.empty()) {
    throw Error(fmt::format("{} is too much; usage: {}", shown(words.front()), row.usage()));
  }
}

void checkDuration(const FaultKindRow& row, const FaultTimes& times) {
  if (!times.duration) return;
  if (!row.lasts()) {
    throw Error(fmt::format("{} is over at once: leave out \"for\"", shown(row.name)));
  }
  if (times.repeats && *times.duration >= times.first) {
    throw Error(fmt::format("\"for {}\" is longer than the time between two, {}: shorten it",
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
        fmt::format("{} has no \":\": it is WHEN: FAULT, such as at 2: end fast", shown(line)));
  }
  const auto times = timesOf(line.substr(0, colon));
  auto fault = parseFaultOfNow(line.substr(colon + 1));
  fault.times = times;
  checkDuration(rowOf(fault.kind), fault.times);
  return fault;
}

Fault parseFaultOfNow(std::string_view line) {
  const auto all = tools::wordsOf(line);
  Words words(all);
  Fault fault;
  const auto& row = rowCalled(take(words, "the fault behind \":\""));
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
  int number = 0;
  for (std::string line; std::getline(file, line);) {
    ++number;
    line.resize(std::min(line.find('#'), line.size()));
    if (tools::wordsOf(line).empty()) continue;
    try {
      plan.push_back(parseFault(line));
    } catch (const std::invalid_argument& error) {
      throw std::runtime_error(fmt::format("{}:{}: {}", path, number, error.what()));
    }
  }
  if (file.bad()) {
    throw std::runtime_error(fmt::format("the fault plan {} is a folder or can't be read", path));
  }
  return plan;
}

std::string faultManual() {
  std::string text =
      "Faults: \"WHEN: FAULT [SUBJECT] [ARGUMENT]\", where WHEN is one of\n"
      "  at SECONDS            once, so long after the begin\n"
      "  every SECONDS         again and again, first after that time\n"
      "  every A..B            the same, each time after A to B seconds, as --seed has it\n"
      "and may end in \"for SECONDS\", if the fault is one that lasts (*). Otherwise what lasts\n"
      "does so until another fault takes its place, or \"normal\". Without a subject a fault\n"
      "befalls all that it can.\n";
  for (const auto& row : faultKinds()) {
    text += fmt::format("  {:<33}{} {}\n", row.usage(), row.lasts() ? '*' : ' ', row.meaning);
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
