#include "tools/sim/WrongMessages.h"

#include <functional>

#include "meters.pb.h"
#include "tools/sim/HalfMessage.h"

namespace sim {
namespace {

using sonalith::grpc::AnyValue;
using sonalith::grpc::Meter;

AnyValue& add(Meter& meter, std::string_view key) {
  auto& entry = *meter.add_values();
  entry.set_key(std::string(key));
  return *entry.mutable_value();
}

// All keys of the rate, with values as `set` gives them by key and number.
using SetValue = std::function<void(AnyValue&, const KeySpec&, std::size_t)>;

Meter meterWith(const std::vector<KeySpec>& keys, Method rate, const SetValue& set) {
  Meter meter;
  for (std::size_t i = 0; i < keys.size(); ++i) {
    if (keys[i].rate == rate) set(add(meter, keys[i].key), keys[i], i);
  }
  return meter;
}

void setOtherType(AnyValue& value, const KeySpec& played, std::size_t) {
  if (played.type == ValueType::String) {
    value.set_sint(-1);
  } else if (played.type == ValueType::Int) {
    value.set_suint(1);
  } else if (played.type == ValueType::Uint) {
    value.set_sfloat(1);
  } else {
    value.mutable_sstring()->set_data("1");
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

// protobuf refuses to write such a text: a byte of a good one is replaced.
std::string notUtf8(const std::vector<KeySpec>& keys, Method rate) {
  constexpr std::string_view text = "caf?";
  auto bytes = meterWith(keys, rate, [&](AnyValue& value, const KeySpec&, std::size_t) {
                 value.mutable_sstring()->set_data(std::string(text));
               }).SerializeAsString();
  bytes += textMessage("text", std::string(text));
  for (auto at = bytes.find(text); at != bytes.npos; at = bytes.find(text, at)) {
    bytes[at + text.size() - 1] = '\xe9';
  }
  return bytes;
}

std::string unknown() {
  Meter meter;
  add(meter, "nobody.knows.this").set_sfloat(1);
  add(meter, "").set_sint(1);
  add(meter, std::string(1000, 'k')).mutable_sstring()->set_data("long");
  add(meter, "nothing");
  return meter.SerializeAsString();
}

}  // namespace

std::string wrongMessage(const Fault& fault, const std::vector<KeySpec>& keys, Method rate) {
  constexpr double mebibyte = 1 << 20;
  constexpr std::size_t cutMessage = 8000;
  switch (fault.kind) {
    case FaultKind::Garbage:
      return "\xff\xff\xff\xff";
    case FaultKind::NotUtf8:
      return notUtf8(keys, rate);
    case FaultKind::Oversize:
      return textMessage("large",
                         std::string(static_cast<std::size_t>(fault.number * mebibyte), 'x'));
    case FaultKind::Unknown:
      return unknown();
    case FaultKind::Types:
      return meterWith(keys, rate, setOtherType).SerializeAsString();
    case FaultKind::Arrays:
      return meterWith(keys, rate, setArrayOrDouble).SerializeAsString();
    case FaultKind::Half:
      return textMessage(HalfMessage::mark, std::string(cutMessage, 'x'));
    default:
      return "";
  }
}

}  // namespace sim
