#include "tools/discover/Problems.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <string_view>

#include "tools/common/StatusName.h"
#include "tools/discover/Shown.h"

namespace discover {
namespace {

using grpc::StatusCode;
using standin::SlotSet;

constexpr std::size_t problemLimit = 1000;
constexpr std::size_t statusTextLimit = 300;

std::string describe(const grpc::Status& status) {
  const auto name = tools::nameOf(status.error_code());
  std::string text =
      name ? std::string(*name) : fmt::format("status {}", static_cast<int>(status.error_code()));
  if (!status.error_message().empty()) text += " " + shown(status.error_message(), statusTextLimit);
  return text;
}

std::string_view methodOf(SlotSet rate) {
  return rate == SlotSet::Fast ? "GetMetersFast" : "GetMetersSlow";
}

std::string remedyFor(StatusCode code, SlotSet rate) {
  switch (code) {
    case StatusCode::UNIMPLEMENTED:
      return fmt::format(
          "It has no method {} of proto/meters.proto. Is it another service, such as the engine's?",
          methodOf(rate));
    case StatusCode::UNAUTHENTICATED:
    case StatusCode::PERMISSION_DENIED:
      return "The gateway connects without credentials, and the server has to accept that.";
    default:
      return "The server's log should say why.";
  }
}

struct Situation {
  const std::string& target;
  double seconds;
  const Heard& heard;
};

std::string countOf(std::uint64_t messages) {
  return messages == 1 ? "1 message" : fmt::format("{} messages", messages);
}

std::string problemOfEnd(const Situation& now, SlotSet rate, const StreamEnd& end) {
  const auto messages = now.heard.sightings.messagesOf(rate).messages;
  const auto status = describe(end.status);
  if (!end.wasConnected && messages == 0) {
    return fmt::format("no meter server can be reached at {}: {}. Start it, or correct the target.",
                       now.target, status);
  }
  const auto ended = fmt::format("{} stream after {}", nameOf(rate), countOf(messages));
  switch (end.status.error_code()) {
    case StatusCode::OK:
      return fmt::format(
          "the server ended the {}. It should keep the stream open and write a message whenever it "
          "has values.",
          ended);
    case StatusCode::UNAVAILABLE:
      return fmt::format(
          "the server or the connection failed, which ended the {}: {}. Listen again when it is "
          "back.",
          ended, status);
    default:
      return fmt::format("the server ended the {}: {}. {}", ended, status,
                         remedyFor(end.status.error_code(), rate));
  }
}

std::string problemOfSilence(const Situation& now, SlotSet rate) {
  if (!now.heard.connected) {
    return fmt::format(
        "{} does not answer: there is no connection after {} seconds. Check that a meter server "
        "runs there and that no firewall is in the way.",
        now.target, now.seconds);
  }
  return fmt::format(
      "nothing came on the {} stream within {} seconds. Listen longer with --for, or make the "
      "server send on this stream.",
      nameOf(rate), now.seconds);
}

std::string problemOfMessages(const Situation& now, SlotSet rate) {
  const auto& seen = now.heard.sightings.messagesOf(rate);
  if (seen.unreadable > 0) {
    return fmt::format(
        "{} of {} on the {} stream can't be read: {}. Each such message costs the module the "
        "stream "
        "for five seconds. Correct the server.",
        seen.unreadable, countOf(seen.messages), nameOf(rate), seen.firstUnreadable);
  }
  if (seen.messages == 0 || !now.heard.sightings.keysOf(rate).empty()) return "";
  return fmt::format(
      "{} came on the {} stream, but no values. Listen longer with --for, or make the server send "
      "values.",
      countOf(seen.messages), nameOf(rate));
}

}  // namespace

std::vector<std::string> problemsOf(const std::string& target, double seconds, const Heard& heard) {
  const Situation now{target, seconds, heard};
  std::vector<std::string> problems;
  const auto add = [&](const std::string& problem) {
    // A missing connection concerns both streams and is reported once.
    const bool known = std::find(problems.begin(), problems.end(), problem) != problems.end();
    if (!problem.empty() && !known) problems.emplace_back(cutTo(problem, problemLimit));
  };
  for (const SlotSet rate : {SlotSet::Fast, SlotSet::Slow}) {
    const auto& end = heard.endOf(rate);
    const bool silent = heard.sightings.messagesOf(rate).messages == 0;
    if (end) {
      add(problemOfEnd(now, rate, *end));
    } else if (silent) {
      add(problemOfSilence(now, rate));
    }
    add(problemOfMessages(now, rate));
  }
  return problems;
}

}  // namespace discover
