// What a meter server sends, as far as a configuration has to know: which keys on which stream, of
// which types, and what of it the module could not read.
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

// A member of the wire's AnyValue.
struct WireType {
  std::string_view name;  // for people and programs: "float", "float array"
  ValueCase value;
  std::optional<gateway::ValueType> slotType;  // none if the module ignores such values
};

// Every member has its row, also the missing value. In the order in which sections are written.
std::span<const WireType> wireTypes();
const WireType& typeOf(ValueCase value);

std::vector<std::string_view> namesOf(const std::vector<ValueCase>& types);

// One key of one stream.
struct SeenKey {
  standin::SlotSet rate;  // Fast or Slow
  std::string key;
  std::vector<ValueCase> types;   // each once, first seen first
  std::uint64_t messages = 0;     // in which it was
  std::uint64_t lastMessage = 0;  // counted from 1
};

// One stream as a whole.
struct SeenMessages {
  std::uint64_t messages = 0;  // unreadable ones too
  std::uint64_t unreadable = 0;
  std::string firstUnreadable;  // "message 3 ...", a sentence without its end
};

class Sightings {
 public:
  // The largest message that a gRPC client takes unless it is told otherwise, as the module is not.
  static constexpr std::size_t messageLimit = std::size_t{4} * 1024 * 1024;

  // Takes in one message of a stream, Fast or Slow.
  void take(standin::SlotSet rate, std::string_view message);

  // Of one stream, first seen first.
  const std::vector<SeenKey>& keysOf(standin::SlotSet rate) const { return streamOf(rate).keys; }

  // Those of the fast stream, then those of the slow one: which stream is ahead is mere chance.
  std::vector<SeenKey> keys() const;

  const SeenMessages& messagesOf(standin::SlotSet rate) const { return streamOf(rate).messages; }

 private:
  struct Stream {
    SeenMessages messages;
    std::vector<SeenKey> keys;
    std::unordered_map<std::string, std::size_t> places;  // of the keys
  };

  const Stream& streamOf(standin::SlotSet rate) const {
    return rate == standin::SlotSet::Fast ? fast_ : slow_;
  }
  static void note(Stream& stream, standin::SlotSet rate, const sonalith::grpc::KeyValue& item);

  Stream fast_;
  Stream slow_;
};

}  // namespace discover
