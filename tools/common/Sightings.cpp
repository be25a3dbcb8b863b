#include "tools/common/Sightings.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/wire_format_lite.h>

#include <algorithm>
#include <optional>
#include <utility>

#include "tools/common/Shown.h"

namespace tools {
namespace {

using google::protobuf::internal::WireFormatLite;
using google::protobuf::io::CodedInputStream;
using sonalith::grpc::AnyValue;

constexpr WireType carried(gateway::ValueType type, ValueCase value) {
  return {nameOf(type), value, type};
}

constexpr WireType typeTable[] = {
    carried(gateway::ValueType::Float, AnyValue::kSfloat),
    carried(gateway::ValueType::Int, AnyValue::kSint),
    carried(gateway::ValueType::Uint, AnyValue::kSuint),
    carried(gateway::ValueType::String, AnyValue::kSstring),
    {"float array", AnyValue::kAfloat, {}},
    {"int array", AnyValue::kAint, {}},
    {"uint array", AnyValue::kAuint, {}},
    {"double", AnyValue::kSdouble, {}},
    {"none", AnyValue::VALUE_NOT_SET, {}},
};

// The payloads of all fields with this number, which must be length-delimited. Nothing if the
// message is broken.
std::optional<std::vector<std::string>> fieldsOf(const std::string& message, int number) {
  CodedInputStream input(reinterpret_cast<const std::uint8_t*>(message.data()),
                         static_cast<int>(message.size()));
  const auto wanted = WireFormatLite::MakeTag(number, WireFormatLite::WIRETYPE_LENGTH_DELIMITED);
  std::vector<std::string> fields;
  while (const auto tag = input.ReadTag()) {
    if (tag != wanted) {
      if (!WireFormatLite::SkipField(&input, tag)) return std::nullopt;
    } else if (!WireFormatLite::ReadBytes(&input, &fields.emplace_back())) {
      return std::nullopt;
    }
  }
  if (!input.ConsumedEntireMessage()) return std::nullopt;
  return fields;
}

// Follows the field numbers of `path` down to texts, and returns the first that is not UTF-8.
std::optional<std::string> findBadText(const std::string& message, const std::vector<int>& path,
                                       std::size_t depth = 0) {
  if (depth == path.size()) {
    const bool good = google::protobuf::internal::IsStructurallyValidUTF8(message);
    return good ? std::nullopt : std::optional(message);
  }
  const auto fields = fieldsOf(message, path[depth]);
  if (!fields) return std::nullopt;
  for (const auto& field : *fields) {
    if (auto bad = findBadText(field, path, depth + 1)) return bad;
  }
  return std::nullopt;
}

struct Refusal {
  UnreadableKind kind;
  std::string reason;
};

// Why the generated class refuses a message.
Refusal refusalOf(const std::string& message) {
  constexpr int values = sonalith::grpc::Meter::kValuesFieldNumber;
  constexpr int key = sonalith::grpc::KeyValue::kKeyFieldNumber;
  constexpr int value = sonalith::grpc::KeyValue::kValueFieldNumber;
  constexpr int sstring = AnyValue::kSstringFieldNumber;
  constexpr int data = sonalith::grpc::String::kDataFieldNumber;
  if (const auto bad = findBadText(message, {values, key})) {
    return {UnreadableKind::NotUtf8, fmt::format("has a key that is not UTF-8, {}", shown(*bad))};
  }
  if (const auto bad = findBadText(message, {values, value, sstring, data})) {
    return {UnreadableKind::NotUtf8, fmt::format("has a text that is not UTF-8, {}", shown(*bad))};
  }
  return {UnreadableKind::NotAMeter, "can't be parsed as a Meter of proto/meters.proto"};
}

}  // namespace

std::span<const WireType> wireTypes() {
  return typeTable;
}

const WireType& typeOf(ValueCase value) {
  return *std::find_if(std::begin(typeTable), std::end(typeTable) - 1,
                       [&](const WireType& type) { return type.value == value; });
}

std::vector<std::string_view> namesOf(const std::vector<ValueCase>& types) {
  std::vector<std::string_view> names;
  names.reserve(types.size());
  for (const auto type : types) names.push_back(typeOf(type).name);
  return names;
}

std::string complaintAboutTypes(const std::vector<ValueCase>& types) {
  if (types.size() > 1) {
    return fmt::format("it came with several types ({}), but an entry has one. Write it by hand",
                       fmt::join(namesOf(types), ", "));
  }
  const WireType& type = typeOf(types.front());
  if (type.value == ValueCase::VALUE_NOT_SET) return "it came without a value";
  if (!type.slotType) return fmt::format("the module does not carry values of type {}", type.name);
  return "";
}

std::string complaintAboutKey(const std::string& key) {
  if (key.empty()) return "an entry can't have an empty key";
  for (const auto& [byte, name] :
       {std::pair('=', "\"=\""), {'\n', "a newline"}, {'\0', "a NUL byte"}}) {
    if (key.find(byte) != key.npos) {
      return fmt::format("a configuration can't hold a key that contains {}", name);
    }
  }
  return "";
}

bool SeenKey::has(gateway::ValueType type) const {
  return std::any_of(types.begin(), types.end(),
                     [&](ValueCase each) { return typeOf(each).slotType == type; });
}

void Sightings::expect(standin::SlotSet rate, const std::string& key, gateway::ValueType type) {
  for (Stream* const stream : {&fast_, &slow_}) stream->expected.try_emplace(key);
  streamOf(rate).expected[key].push_back(type);
  ++expected_;
  ++missing_;
}

void Sightings::take(standin::SlotSet rate, std::string_view message) {
  Stream& stream = streamOf(rate);
  SeenMessages& seen = stream.messages;
  ++seen.messages;
  const bool isTooLong = message.size() > messageLimit;
  sonalith::grpc::Meter meter;
  if (!isTooLong && meter.ParseFromArray(message.data(), static_cast<int>(message.size()))) {
    for (const auto& item : meter.values()) note(stream, rate, item);
    return;
  }
  noteUnreadable(seen, message);
}

void Sightings::noteUnreadable(SeenMessages& seen, std::string_view message) {
  const Refusal refusal =
      message.size() > messageLimit
          ? Refusal{UnreadableKind::TooLong,
                    fmt::format("has {} bytes, and gRPC clients accept {} at most", message.size(),
                                messageLimit)}
          : refusalOf(std::string(message));
  const auto described = fmt::format("message {} {}", seen.messages, refusal.reason);
  if (++seen.unreadable == 1) seen.firstUnreadable = described;
  auto& first = seen.firstOfKind.at(static_cast<std::size_t>(refusal.kind));
  if (first.empty()) first = described;
}

bool Sightings::hasRoom(const Stream& stream, const std::string& key) const {
  return (stream.keys.size() < limits_.keys && stream.keyBytes + key.size() <= limits_.keyBytes) ||
         stream.expected.contains(key);
}

void Sightings::note(Stream& stream, standin::SlotSet rate, const sonalith::grpc::KeyValue& item) {
  auto place = stream.places.find(item.key());
  if (place == stream.places.end()) {
    if (!hasRoom(stream, item.key())) {
      ++stream.messages.ignoredValues;
      return;
    }
    place = stream.places.emplace(item.key(), stream.keys.size()).first;
    stream.keys.push_back({.rate = rate, .key = item.key(), .types = {}});
    stream.keyBytes += item.key().size();
  }
  SeenKey& seen = stream.keys[place->second];
  const auto type = item.value().value_case();
  if (std::find(seen.types.begin(), seen.types.end(), type) == seen.types.end()) {
    noteType(stream, seen, type);
  }
  if (seen.lastMessage != stream.messages.messages) ++seen.messages;
  seen.lastMessage = stream.messages.messages;
}

// For a type that is new for its key.
void Sightings::noteType(Stream& stream, SeenKey& seen, ValueCase type) {
  seen.types.push_back(type);
  const auto expected = stream.expected.find(seen.key);
  if (expected == stream.expected.end()) return;
  missing_ -= std::erase(expected->second, typeOf(type).slotType);
}

std::vector<SeenKey> Sightings::keys() const {
  std::vector<SeenKey> keys = fast_.keys;
  keys.insert(keys.end(), slow_.keys.begin(), slow_.keys.end());
  return keys;
}

const SeenKey* Sightings::find(standin::SlotSet rate, const std::string& key) const {
  const Stream& stream = streamOf(rate);
  const auto place = stream.places.find(key);
  return place == stream.places.end() ? nullptr : &stream.keys[place->second];
}

}  // namespace tools
