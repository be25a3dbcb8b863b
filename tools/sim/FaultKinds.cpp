#include "tools/sim/FaultKinds.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <functional>
#include <utility>

#include "meters.pb.h"
#include "tools/common/EnumTable.h"
#include "tools/sim/Chance.h"
#include "tools/sim/FaultPlan.h"
#include "tools/sim/FaultSite.h"
#include "tools/sim/HalfMessage.h"

namespace sim {
namespace {

using sonalith::grpc::AnyValue;
using sonalith::grpc::Meter;

// ---- Messages that a client should survive --------------------------------------------------

AnyValue& add(Meter& meter, std::string_view key) {
  auto& entry = *meter.add_values();
  entry.set_key(std::string(key));
  return *entry.mutable_value();
}

// The bytes of a Meter with the keys that play on the site's streams. `set` gives each its value,
// by key and number.
using SetValue = std::function<void(AnyValue&, const KeySpec&, std::size_t)>;

std::string meterOf(const FaultSite& site, const SetValue& set) {
  Meter meter;
  const auto& keys = site.keys();
  for (std::size_t i = 0; i < keys.size(); ++i) {
    if (keys[i].rate == site.method()) set(add(meter, keys[i].key), keys[i], i);
  }
  return meter.SerializeAsString();
}

void setOtherType(AnyValue& value, const KeySpec& played, std::size_t) {
  switch (played.type) {
    case ValueType::String:
      return value.set_sint(-1);
    case ValueType::Int:
      return value.set_suint(1);
    case ValueType::Uint:
      return value.set_sfloat(1);
    case ValueType::Float:
      return value.mutable_sstring()->set_data("1");
  }
}

void setArrayOrDouble(AnyValue& value, const KeySpec&, std::size_t number) {
  constexpr std::size_t kinds = 4;
  if (number % kinds == 0) {
    value.mutable_afloat()->add_data(1);
  } else if (number % kinds == 1) {
    value.mutable_aint()->add_data(-1);
  } else if (number % kinds == 2) {
    value.mutable_auint()->add_data(1);
  } else {
    value.set_sdouble(1);
  }
}

std::string textMessage(std::string_view key, std::string text) {
  Meter meter;
  add(meter, key).mutable_sstring()->set_data(std::move(text));
  return meter.SerializeAsString();
}

// protobuf refuses to write a text that is not UTF-8, so this replaces a byte of a good one.
std::string notUtf8(const FaultSite& site) {
  constexpr std::string_view text = "caf?";
  auto bytes = meterOf(site, [&](AnyValue& value, const KeySpec&, std::size_t) {
    value.mutable_sstring()->set_data(std::string(text));
  });
  bytes += textMessage("text", std::string(text));
  for (auto at = bytes.find(text); at != bytes.npos; at = bytes.find(text, at)) {
    bytes[at + text.size() - 1] = '\xe9';
  }
  return bytes;
}

std::string oversize(double mebibytes) {
  constexpr double mebibyte = 1 << 20;
  return textMessage("large", std::string(static_cast<std::size_t>(mebibytes * mebibyte), 'x'));
}

std::string unknown() {
  Meter meter;
  add(meter, "nobody.knows.this").set_sfloat(1);
  add(meter, "").set_sint(1);
  add(meter, std::string(1000, 'k')).mutable_sstring()->set_data("long");
  add(meter, "nothing");
  return meter.SerializeAsString();
}

// A message for the relay to cut in half.
std::string cut() {
  constexpr std::size_t size = 8000;
  return textMessage(HalfMessage::mark, std::string(size, 'x'));
}

// ---- The table ------------------------------------------------------------------------------

using Site = FaultSite;
using K = FaultKind;
using G = FaultGroup;
using A = FaultArgument;
constexpr std::optional<double> none;
constexpr bool strikesEach = true;  // chance decides about each message or call

constexpr FaultKindRow::Act playOn = [](Site& site, const Fault&) { site.setFeed(Feed::Signals); };
constexpr FaultKindRow::Act setLimit = [](Site& site, const Fault& fault) {
  site.relay().limit(fault.number);
};
constexpr FaultKindRow::Act liftLimit = [](Site& site, const Fault&) { site.relay().limit(0); };
constexpr FaultKindRow::Act answerAgain = [](Site& site, const Fault&) {
  site.answers().change({});
};

constexpr auto kinds = std::to_array<FaultKindRow>({
    {K::End, "end", G::Message, A::Status, "[STATUS]", none,
     "End the stream with STATUS, by default OK.",
     [](Site& site, const Fault& fault) { site.endStreams(fault.status); }},
    {K::Garbage, "garbage", G::Message, A::None, "", none,
     "Send a message whose bytes can't be parsed.",
     [](Site& site, const Fault&) { site.send("\xff\xff\xff\xff"); }},
    {K::NotUtf8, "not-utf8", G::Message, A::None, "", none,
     "Send a message with a text that is not UTF-8.",
     [](Site& site, const Fault&) { site.send(notUtf8(site)); }},
    {K::Oversize, "oversize", G::Message, A::Number, "[MEBIBYTES]", 5,
     "Send a message of this size, by default 5 MiB. Clients accept up to 4 MiB.",
     [](Site& site, const Fault& fault) { site.send(oversize(fault.number)); }},
    {K::Unknown, "unknown", G::Message, A::None, "", none,
     "Send a message with keys that no configuration has.",
     [](Site& site, const Fault&) { site.send(unknown()); }},
    {K::Types, "types", G::Message, A::None, "", none,
     "Send a message with the keys that play, each with a value of another type.",
     [](Site& site, const Fault&) { site.send(meterOf(site, setOtherType)); }},
    {K::Arrays, "arrays", G::Message, A::None, "", none,
     "Send a message with the keys that play, as arrays and doubles.",
     [](Site& site, const Fault&) { site.send(meterOf(site, setArrayOrDouble)); }},
    {K::Empty, "empty", G::Message, A::None, "", none, "Send a message without values.",
     [](Site& site, const Fault&) { site.send(""); }},
    {K::Stall, "stall", G::Stream, A::None, "", none, "Keep the stream open, but send nothing.",
     [](Site& site, const Fault&) { site.setFeed(Feed::Nothing); }, playOn},
    {K::Flood, "flood", G::Stream, A::None, "", none, "Send as many messages as the stream takes.",
     [](Site& site, const Fault&) { site.setFeed(Feed::Flood); }, playOn},
    {K::Half, "half", G::Stream, A::None, "", none,
     "Send half a message, then nothing. When this is over, end the stream.",
     [](Site& site, const Fault&) {
       site.setFeed(Feed::Nothing);
       site.sendHalf(cut());
     },
     [](Site& site, const Fault&) {
       site.setFeed(Feed::Signals);
       site.endHalves();
     }},
    {K::Close, "close", G::Connection, A::None, "", none,
     "Close all connections in an orderly way (FIN).",
     [](Site& site, const Fault&) { site.relay().closeAll(); }},
    {K::Reset, "reset", G::Connection, A::None, "", none, "Reset all connections (RST).",
     [](Site& site, const Fault&) { site.relay().resetAll(); }},
    {K::Refuse, "refuse", G::Connection, A::None, "", none,
     "Close all connections, and stop listening.",
     [](Site& site, const Fault&) {
       site.relay().refuse(true);
       site.relay().closeAll();
     },
     [](Site& site, const Fault&) { site.relay().refuse(false); }},
    {K::Silent, "silent", G::Connection, A::None, "", none,
     "Close all connections. Accept new ones, but never answer.",
     [](Site& site, const Fault&) {
       site.relay().freeze(true);
       site.relay().closeAll();
     },
     [](Site& site, const Fault&) { site.relay().freeze(false); }},
    {K::Freeze, "freeze", G::Connection, A::None, "", none,
     "Keep connections open, but let nothing through in either direction.",
     [](Site& site, const Fault&) { site.relay().freeze(true); },
     [](Site& site, const Fault&) { site.relay().freeze(false); }},
    {K::Drip, "drip", G::Bandwidth, A::Bytes, "BYTES", none, "Another name for limit.", setLimit,
     liftLimit},
    {K::Slice, "slice", G::Slicing, A::Bytes, "BYTES", none,
     "Cut what the server sends into packets of this size.",
     [](Site& site, const Fault& fault) {
       site.relay().slice(static_cast<std::size_t>(std::max(1.0, fault.number)));
     },
     [](Site& site, const Fault&) { site.relay().slice(0); }},
    {K::Limit, "limit", G::Bandwidth, A::Bytes, "BYTES", none,
     "Let only BYTES per second through to the client.", setLimit, liftLimit},
    {K::Loss, "loss", G::Loss, A::Count, "[MESSAGES]", 1,
     "Lose messages, in bursts of MESSAGES. \"with\" says how often a burst begins.",
     [](Site& site, const Fault& fault) {
       site.setLoss(Loss{.burst = fault.range, .chance = fault.chance()});
     },
     [](Site& site, const Fault&) { site.setLoss({}); }, strikesEach},
    {K::Delay, "delay", G::Latency, A::Time, "TIME", none,
     "Send messages, or answers to SetParams calls, this late. Messages keep their order.",
     [](Site& site, const Fault& fault) {
       site.setDelay(Delay{.seconds = fault.range, .chance = fault.chance()});
     },
     [](Site& site, const Fault&) { site.setDelay({}); }, strikesEach},
    {K::NoReply, "no-reply", G::Answer, A::None, "", none,
     "Leave SetParams calls unanswered until this is over.",
     [](Site& site,
        const Fault&
            fault) { site.answers().change({.replies = false, .chance = fault.chance()}); },
     answerAgain, strikesEach},
    {K::Fail, "fail", G::Answer, A::Status, "STATUS", none, "Answer SetParams calls with STATUS.",
     [](Site& site, const Fault& fault) {
       site.answers().change({.status = fault.status, .chance = fault.chance()});
     },
     answerAgain, strikesEach},
    {K::BadReply, "bad-reply", G::Answer, A::None, "", none,
     "Answer SetParams calls with a message that can't be parsed.",
     [](Site& site, const Fault& fault) {
       site.answers().change({.readable = false, .chance = fault.chance()});
     },
     answerAgain, strikesEach},
    {K::Normal, "normal", G::All, A::None, "", none, "End the faults that last.",
     [](Site&, const Fault&) {}},  // the Saboteur ends what lasts
});
static_assert(tools::isIndexedBy(kinds, &FaultKindRow::kind), "a row per kind, in their order");
static_assert(kinds.back().kind == FaultKind::Normal, "every kind has a row");

struct SubjectRow {
  Subject subject;
  std::string_view name;
};

constexpr auto subjectRows = std::to_array<SubjectRow>({
    {Subject::Fast, "fast"},
    {Subject::Slow, "slow"},
    {Subject::Meters, "meters"},
    {Subject::Engine, "engine"},
});
static_assert(tools::isIndexedBy(subjectRows, &SubjectRow::subject));

}  // namespace

std::string_view nameOf(Subject subject) {
  return subjectRows[static_cast<std::size_t>(subject)].name;
}

std::optional<Subject> subjectCalled(std::string_view name) {
  for (const auto& row : subjectRows) {
    if (row.name == name) return row.subject;
  }
  return std::nullopt;
}

std::string namesOf(const std::vector<Subject>& subjects, std::string_view separator) {
  std::vector<std::string_view> names;
  names.reserve(subjects.size());
  for (const auto subject : subjects) names.push_back(nameOf(subject));
  return fmt::to_string(fmt::join(names, separator));
}

std::span<const FaultKindRow> faultKinds() {
  return kinds;
}

const FaultKindRow& rowOf(FaultKind kind) {
  return kinds[static_cast<std::size_t>(kind)];
}

std::vector<Subject> FaultKindRow::subjects() const {
  switch (group) {
    case FaultGroup::Message:
    case FaultGroup::Stream:
    case FaultGroup::Loss:
      return {Subject::Fast, Subject::Slow};
    case FaultGroup::Connection:
    case FaultGroup::Bandwidth:
    case FaultGroup::Slicing:
    case FaultGroup::Latency:
      return {Subject::Meters, Subject::Engine};
    case FaultGroup::Answer:
      return {Subject::Engine};
    case FaultGroup::All:
      break;
  }
  return {Subject::Fast, Subject::Slow, Subject::Meters, Subject::Engine};
}

bool FaultKindRow::isOfConnections() const {
  return group == FaultGroup::Connection || group == FaultGroup::Bandwidth ||
         group == FaultGroup::Slicing;
}

std::string FaultKindRow::usage() const {
  return fmt::format("{} [{}]{}{}", name, namesOf(subjects(), "|"), argumentName.empty() ? "" : " ",
                     argumentName);
}

}  // namespace sim
