#include "tools/common/StreamProblems.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <string_view>

#include "tools/common/Shown.h"
#include "tools/common/StatusName.h"

namespace tools {
namespace {

using grpc::StatusCode;
using standin::SlotSet;

constexpr std::size_t problemLimit = 1000;
constexpr std::size_t statusTextLimit = 300;

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

// gRPC has one status for several reasons, and tells them apart only in its text.
std::string problemOfSize(std::string_view ended, const grpc::Status& status) {
  const std::string text = status.error_message();
  if (text.starts_with("Received message larger than max")) {
    return fmt::format(
        "a message that was too long ended the {}: {}. gRPC clients accept {} bytes at most, and "
        "this tool "
        "receives no more than {}. Make the server send shorter messages.",
        ended, describe(status), Sightings::messageLimit, receivedMessageLimit);
  }
  if (text.starts_with("Buffers full")) {
    return fmt::format(
        "the server sent more than the {} bytes that this tool receives at once, which ended the "
        "{}: {}. gRPC clients accept messages of {} bytes at most. Make the server send shorter "
        "messages.",
        receiveLimit, ended, describe(status), Sightings::messageLimit);
  }
  return fmt::format("the server ended the {}: {}. {}", ended, describe(status),
                     "The server's log should say why.");
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
    case StatusCode::RESOURCE_EXHAUSTED:
      return problemOfSize(ended, end.status);
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

std::string problemOfLimits(const Situation& now, SlotSet rate) {
  const auto& sightings = now.heard.sightings;
  const auto ignored = sightings.messagesOf(rate).ignoredValues;
  if (ignored == 0) return "";
  return fmt::format(
      "the {} stream has more keys than are kept, which are {}, or {} bytes of keys. {} under "
      "further keys {} ignored. Does the server make up keys?",
      nameOf(rate), sightings.limits().keys, sightings.limits().keyBytes,
      ignored == 1 ? "1 value" : fmt::format("{} values", ignored), ignored == 1 ? "was" : "were");
}

}  // namespace

std::string describe(const grpc::Status& status) {
  const auto name = nameOf(status.error_code());
  std::string text =
      name ? std::string(*name) : fmt::format("status {}", static_cast<int>(status.error_code()));
  if (!status.error_message().empty()) text += " " + shown(status.error_message(), statusTextLimit);
  return text;
}

std::vector<StreamProblem> problemsOf(const std::string& target, double seconds,
                                      const Heard& heard) {
  const Situation now{target, seconds, heard};
  std::vector<StreamProblem> problems;
  const auto add = [&](SlotSet rate, const std::string& text) {
    if (text.empty()) return;
    const std::string kept(cutTo(text, problemLimit));
    // A missing connection concerns both streams and is reported once.
    const auto known = std::find_if(problems.begin(), problems.end(),
                                    [&](const auto& each) { return each.text == kept; });
    if (known != problems.end()) {
      known->rates.push_back(rate);
    } else {
      problems.push_back({{rate}, kept});
    }
  };
  for (const SlotSet rate : {SlotSet::Fast, SlotSet::Slow}) {
    const auto& end = heard.endOf(rate);
    const bool silent = heard.sightings.messagesOf(rate).messages == 0;
    if (end) {
      add(rate, problemOfEnd(now, rate, *end));
    } else if (silent) {
      add(rate, problemOfSilence(now, rate));
    }
    add(rate, problemOfMessages(now, rate));
    add(rate, problemOfLimits(now, rate));
  }
  return problems;
}

}  // namespace tools
