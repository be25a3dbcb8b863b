#include "tools/sim/Commander.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>

#include "tools/common/ManualText.h"
#include "tools/common/Numbers.h"
#include "tools/common/Output.h"
#include "tools/common/StatusName.h"
#include "tools/common/Words.h"
#include "tools/sim/EventText.h"

namespace sim {
namespace {

using tools::wordsOf;

// A command that can't be carried out; what() says why.
struct CommandError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

grpc::StatusCode statusOf(std::string_view word) {
  if (const auto status = tools::statusCalled(word)) return *status;
  throw CommandError(fmt::format("\"{}\" is not a status. Use one of: {}", word,
                                 fmt::join(tools::statusNames(), " ")));
}

std::string bytesCalled(std::string_view word) {
  if (auto bytes = bytesOfHex(word)) return *std::move(bytes);
  throw CommandError(fmt::format(
      "\"{}\" is not hexadecimal. Use pairs of the digits 0-9 and a-f, or - for no bytes", word));
}

std::uint64_t timesCalled(std::string_view word) {
  const auto times = tools::numberIn<std::uint64_t>(word);
  if (!times) {
    throw CommandError(
        fmt::format("\"{}\" is not a number of times. Use digits; 0 means without end", word));
  }
  return *times == 0 ? Call::forever : *times;
}

std::shared_ptr<Call> newestCall(const Simulator& simulator, std::string_view word) {
  const bool fast = word == nameOf(Method::Fast);
  if (!fast && word != nameOf(Method::Slow)) {
    throw CommandError(fmt::format("\"{}\" is not a stream. Use fast or slow", word));
  }
  const auto calls = simulator.openCalls(fast ? Method::Fast : Method::Slow);
  if (calls.empty()) throw CommandError(fmt::format("no {} stream is open", word));
  return calls.back();
}

}  // namespace

struct Commander::Command {
  std::string_view name;       // one word, or two
  std::string_view arguments;  // as the help shows them: [...] is optional
  std::string_view effect;
  void (Commander::*carryOut)(const Simulator& simulator, Words arguments);

  static const std::array<Command, 9> all;
  // The command that `words` begin with. Throws CommandError if there is none.
  static const Command& of(Words words);

  bool matches(Words words) const;
  bool takes(Words words) const;
  std::string usage() const {
    return fmt::format("{}{}{}", name, arguments.empty() ? "" : " ", arguments);
  }
};

const std::array<Commander::Command, 9> Commander::Command::all{{
    {"send", "fast|slow HEX|- [TIMES]",
     "Write a message to the newest open call, once or TIMES times; with 0, again and again until "
     "the call ends or \"stop\" comes.",
     &Commander::send},
    {"stop", "fast|slow", "Drop the messages that are still to be sent.", &Commander::stop},
    {"end", "fast|slow STATUS", "Send what is still to be sent, then end the call.",
     &Commander::end},
    {"engine reply", "HEX|-",
     "From now on, answer SetParams calls with this message (at first \"-\", an empty one).",
     &Commander::engineReply},
    {"engine fail", "STATUS", "From now on, answer SetParams calls with this status.",
     &Commander::engineFail},
    {"engine hold", "",
     "From now on, leave SetParams calls unanswered, until the next reply or fail.",
     &Commander::engineHold},
    {"engine release", "", "Answer the calls left unanswered, as the last reply or fail said.",
     &Commander::engineRelease},
    {"sync", "WORD", "Print \"sync WORD\" when all earlier commands have been carried out.",
     &Commander::sync},
    {"quit", "", "End the program, as the end of standard input does.", &Commander::quit},
}};

std::string Commander::manual() {
  constexpr std::size_t column = 32;
  std::string text;
  for (const auto& command : Command::all) {
    text += tools::manualEntry(command.usage(), command.effect, column);
  }
  return text;
}

bool Commander::Command::matches(Words words) const {
  const auto nameWords = wordsOf(name);
  return words.size() >= nameWords.size() &&
         std::equal(nameWords.begin(), nameWords.end(), words.begin());
}

bool Commander::Command::takes(Words words) const {
  const auto names = wordsOf(arguments);
  const auto optional = std::count_if(names.begin(), names.end(),
                                      [](std::string_view word) { return word.starts_with('['); });
  return words.size() <= names.size() &&
         words.size() + static_cast<std::size_t>(optional) >= names.size();
}

const Commander::Command& Commander::Command::of(Words words) {
  std::string names;
  for (const auto& command : all) {
    if (command.matches(words)) return command;
    names += fmt::format("{}{}", names.empty() ? "" : ", ", command.name);
  }
  throw CommandError(
      fmt::format("unknown command \"{}\". The commands are {}", fmt::join(words, " "), names));
}

bool Commander::carryOut(const Simulator& simulator, std::string_view line) {
  const auto words = wordsOf(line);
  if (words.empty()) return true;
  try {
    const auto& command = Command::of(words);
    const auto arguments = Words(words).subspan(wordsOf(command.name).size());
    if (!command.takes(arguments)) throw CommandError("usage: " + command.usage());
    (this->*command.carryOut)(simulator, arguments);
  } catch (const CommandError& error) {
    tools::writeOut(fmt::format("error {}\n", tools::printable(error.what())));
  }
  return !quit_;
}

void Commander::opened(const std::shared_ptr<Call>& call) {
  const auto& opening = call->opening();
  const bool engine = opening.method == Method::SetParams;
  const std::lock_guard lock(mutex_);
  tools::writeOut(fmt::format(
      "{}{} {} {} deadline={} metadata={}\n", engine ? "" : "open ", nameOf(opening.method),
      opening.number, hexOf(opening.request), opening.hasDeadline ? "set" : "none",
      opening.metadata.empty() ? "-" : fmt::to_string(fmt::join(opening.metadata, ","))));
  if (!engine) return;
  if (holding_) {
    held_.push_back(call);
  } else {
    answer(*call);
  }
}

void Commander::sent(const Call& call, std::uint64_t count) {
  const auto& opening = call.opening();
  if (opening.method == Method::SetParams) return;
  tools::writeOut(fmt::format("sent {} {} {}\n", nameOf(opening.method), opening.number, count));
}

void Commander::closed(const Call& call, bool cancelled) {
  const auto& opening = call.opening();
  const auto ended = opening.method == Method::SetParams ? "replied" : "ended";
  tools::writeOut(fmt::format("closed {} {} {}\n", nameOf(opening.method), opening.number,
                              cancelled ? "cancelled" : ended));
  const std::lock_guard lock(mutex_);
  std::erase_if(held_, [&](const auto& held) { return held.get() == &call; });
}

void Commander::send(const Simulator& simulator, Words arguments) {
  const auto bytes = bytesCalled(arguments[1]);
  const auto times = arguments.size() > 2 ? timesCalled(arguments[2]) : 1;
  const auto call = newestCall(simulator, arguments[0]);
  if (!call->send(bytes, times))
    throw CommandError(fmt::format("the {} stream has just ended", arguments[0]));
}

void Commander::stop(const Simulator& simulator, Words arguments) {
  newestCall(simulator, arguments[0])->stop();
}

void Commander::end(const Simulator& simulator, Words arguments) {
  const auto status = statusOf(arguments[1]);
  newestCall(simulator, arguments[0])->end(status);
}

void Commander::engineReply(const Simulator&, Words arguments) {
  auto reply = bytesCalled(arguments[0]);
  const std::lock_guard lock(mutex_);
  reply_ = std::move(reply);
  status_ = grpc::StatusCode::OK;
  holding_ = false;
}

void Commander::engineFail(const Simulator&, Words arguments) {
  const auto status = statusOf(arguments[0]);
  const std::lock_guard lock(mutex_);
  status_ = status;
  holding_ = false;
}

void Commander::engineHold(const Simulator&, Words) {
  const std::lock_guard lock(mutex_);
  holding_ = true;
}

void Commander::engineRelease(const Simulator&, Words) {
  const std::lock_guard lock(mutex_);
  for (const auto& call : held_) answer(*call);
  held_.clear();
}

void Commander::sync(const Simulator&, Words arguments) {
  tools::writeOut(fmt::format("sync {}\n", arguments[0]));
}

void Commander::quit(const Simulator&, Words) {
  quit_ = true;
}

void Commander::answer(Call& call) const {
  if (status_ == grpc::StatusCode::OK) call.send(reply_);
  call.end(status_);
}

}  // namespace sim
