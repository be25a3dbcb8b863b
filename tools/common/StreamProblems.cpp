#include "tools/common/StreamProblems.h"

#include <fmt/format.h>

#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>

#include "tools/common/Shown.h"
#include "tools/common/StatusName.h"

namespace tools {
namespace {

using grpc::StatusCode;
using standin::SlotSet;

constexpr std::size_t sentencesLimit = 1000;
constexpr std::size_t statusTextLimit = 300;

std::string_view methodOf(SlotSet rate) {
  return rate == SlotSet::Fast ? "GetMetersFast" : "GetMetersSlow";
}

// The text and the advice of a problem.
using Words = std::pair<std::string, std::string>;

std::string adviceFor(StatusCode code, SlotSet rate) {
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

// gRPC has one status for several reasons, and tells them apart only in its text.
Words wordsOnSize(std::string_view ended, const grpc::Status& status) {
  const std::string text = status.error_message();
  if (text.starts_with("Received message larger than max")) {
    return {
        fmt::format("a message that was too long ended the {}: {}", ended, describe(status)),
        fmt::format("gRPC clients accept {} bytes at most, and this tool receives no more than {}. "
                    "Make the server send shorter messages.",
                    Sightings::messageLimit, receivedMessageLimit)};
  }
  if (text.starts_with("Buffers full")) {
    return {fmt::format("the server sent more than the {} bytes that this tool receives at once, "
                        "which ended the {}: {}",
                        receiveLimit, ended, describe(status)),
            fmt::format("gRPC clients accept messages of {} bytes at most. Make the server send "
                        "shorter messages.",
                        Sightings::messageLimit)};
  }
  return {fmt::format("the server ended the {}: {}", ended, describe(status)),
          "The server's log should say why."};
}

struct Situation {
  const std::string& target;
  double seconds;
  const Heard& heard;
};

std::string countOf(std::uint64_t messages) {
  return messages == 1 ? "1 message" : fmt::format("{} messages", messages);
}

Words wordsOnEnd(const Situation& now, SlotSet rate, const StreamEnd& end) {
  const auto messages = now.heard.sightings.messagesOf(rate).messages;
  const auto status = describe(end.status);
  if (!end.wasConnected && messages == 0) {
    return {fmt::format("no meter server can be reached at {}: {}", now.target, status),
            "Start it, or correct the target."};
  }
  const auto ended = fmt::format("{} stream after {}", nameOf(rate), countOf(messages));
  switch (end.status.error_code()) {
    case StatusCode::OK:
      return {fmt::format("the server ended the {}", ended),
              "It should keep the stream open and write a message whenever it has values."};
    case StatusCode::UNAVAILABLE:
      return {
          fmt::format("the server or the connection failed, which ended the {}: {}", ended, status),
          "Listen again when it is back."};
    case StatusCode::RESOURCE_EXHAUSTED:
      return wordsOnSize(ended, end.status);
    default:
      return {fmt::format("the server ended the {}: {}", ended, status),
              adviceFor(end.status.error_code(), rate)};
  }
}

Words wordsOnSilence(const Situation& now, SlotSet rate) {
  if (!now.heard.connected) {
    return {fmt::format("{} does not answer: there is no connection after {} seconds", now.target,
                        now.seconds),
            "Check that a meter server runs there and that no firewall is in the way."};
  }
  return {fmt::format("nothing came on the {} stream within {} seconds", nameOf(rate), now.seconds),
          "Listen or record for longer, or make the server send on this stream."};
}

std::optional<Words> wordsOnMessages(const Situation& now, SlotSet rate) {
  const auto& seen = now.heard.sightings.messagesOf(rate);
  if (seen.unreadable > 0) {
    return Words{fmt::format("{} of {} on the {} stream can't be read: {}", seen.unreadable,
                             countOf(seen.messages), nameOf(rate), seen.firstUnreadable),
                 "Each such message costs the module the stream for five seconds. Correct the "
                 "server."};
  }
  if (seen.messages == 0 || !now.heard.sightings.keysOf(rate).empty()) return std::nullopt;
  return Words{
      fmt::format("{} came on the {} stream, but no values", countOf(seen.messages), nameOf(rate)),
      "Listen or record for longer, or make the server send values."};
}

std::optional<Words> wordsOnLimits(const Situation& now, SlotSet rate) {
  const auto& sightings = now.heard.sightings;
  const auto ignored = sightings.messagesOf(rate).ignoredValues;
  if (ignored == 0) return std::nullopt;
  return Words{
      fmt::format("the {} stream has more keys than this tool keeps: {}, or {} bytes of keys",
                  nameOf(rate), sightings.limits().keys, sightings.limits().keyBytes),
      fmt::format("{} under further keys {} ignored. Does the server make up keys?",
                  ignored == 1 ? "1 value" : fmt::format("{} values", ignored),
                  ignored == 1 ? "was" : "were")};
}

// A missing connection concerns both streams and is reported once.
void add(std::vector<StreamProblem>& problems, SlotSet rate, const std::optional<Words>& words) {
  if (!words) return;
  for (StreamProblem& each : problems) {
    if (each.text == words->first) return each.rates.push_back(rate);
  }
  problems.push_back({{rate}, words->first, words->second});
}

}  // namespace

std::string describe(const grpc::Status& status) {
  std::string text = statusText(status.error_code());
  if (!status.error_message().empty()) text += " " + shown(status.error_message(), statusTextLimit);
  return text;
}

std::vector<StreamProblem> problemsOf(const std::string& target, double seconds,
                                      const Heard& heard) {
  const Situation now{target, seconds, heard};
  std::vector<StreamProblem> problems;
  for (const SlotSet rate : {SlotSet::Fast, SlotSet::Slow}) {
    const auto& end = heard.endOf(rate);
    if (end) {
      add(problems, rate, wordsOnEnd(now, rate, *end));
    } else if (heard.sightings.messagesOf(rate).messages == 0) {
      add(problems, rate, wordsOnSilence(now, rate));
    }
    add(problems, rate, wordsOnMessages(now, rate));
    add(problems, rate, wordsOnLimits(now, rate));
  }
  return problems;
}

std::string sentencesOf(const StreamProblem& problem) {
  return std::string(cutTo(problem.text + ". " + problem.advice, sentencesLimit));
}

}  // namespace tools
