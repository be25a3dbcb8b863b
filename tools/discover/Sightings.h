// What a meter server sends, as far as a configuration depends on it: which keys come on which
// stream with which types, and which messages the module could not read.
//
// Threads: one at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "meters.pb.h"
#include "module/grpc-gateway/ValueType.h"
#include "standin/LoadedModule.h"

namespace discover {

using ValueCase = sonalith::grpc::AnyValue::ValueCase;

// A member of AnyValue, as it travels on the wire.
struct WireType {
  std::string_view name;  // for people and programs: "float", "float array"
  ValueCase value;
  std::optional<gateway::ValueType> slotType;  // nothing: the module ignores such values
};

// A row for every member and for a missing value, in the order in which sections are written.
std::span<const WireType> wireTypes();
const WireType& typeOf(ValueCase value);

std::vector<std::string_view> namesOf(const std::vector<ValueCase>& types);

// One key of one stream.
struct SeenKey {
  standin::SlotSet rate;  // Fast or Slow
  std::string key;
  std::vector<ValueCase> types;   // each once, first seen first
  std::uint64_t messages = 0;     // how many contained it
  std::uint64_t lastMessage = 0;  // the number of the last one, from 1
};

// One stream as a whole.
struct SeenMessages {
  std::uint64_t messages = 0;  // including unreadable ones
  std::uint64_t unreadable = 0;
  std::string firstUnreadable;  // "message 3 ...", without a full stop
};

class Sightings {
 public:
  // The largest message that a gRPC client accepts by default. The module keeps that default.
  static constexpr std::size_t messageLimit = std::size_t{4} * 1024 * 1024;

  // Records one message of a stream, Fast or Slow.
  void take(standin::SlotSet rate, std::string_view message);

  // The keys of one stream, in the order of their first messages.
  const std::vector<SeenKey>& keysOf(standin::SlotSet rate) const { return streamOf(rate).keys; }

  // The keys of the fast stream, then those of the slow one: across streams, their order is random.
  std::vector<SeenKey> keys() const;

  const SeenMessages& messagesOf(standin::SlotSet rate) const { return streamOf(rate).messages; }

 private:
  struct Stream {
    SeenMessages messages;
    std::vector<SeenKey> keys;
    std::unordered_map<std::string, std::size_t> places;  // in `keys`, by key
  };

  const Stream& streamOf(standin::SlotSet rate) const {
    return rate == standin::SlotSet::Fast ? fast_ : slow_;
  }
  static void note(Stream& stream, standin::SlotSet rate, const sonalith::grpc::KeyValue& item);

  Stream fast_;
  Stream slow_;
};

}  // namespace discover
