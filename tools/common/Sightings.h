// What a meter server sends, as far as a configuration depends on it: which keys come on which
// stream with which types, and which messages the module could not read. It doesn't matter whether
// the messages come from a server or from a file.
//
// Threads: one at a time.
// Memory: SightingLimits for each stream, and the expected keys.
#pragma once

#include <array>
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

namespace tools {

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

  bool has(gateway::ValueType type) const;
};

// Why a configuration can't have an entry for such a key, or for values of these types, without a
// full stop; empty if it can.
std::string complaintAboutKey(const std::string& key);
std::string complaintAboutTypes(const std::vector<ValueCase>& types);

// Why the module can't read a message.
enum class UnreadableKind { TooLong, NotUtf8, NotAMeter };

// One stream as a whole.
struct SeenMessages {
  std::uint64_t messages = 0;  // including unreadable ones
  std::uint64_t unreadable = 0;
  std::string firstUnreadable;  // "message 3 ...", without a full stop
  // The same for the first message of each kind; empty if there is none.
  std::array<std::string, 3> firstOfKind;
  std::uint64_t ignoredValues = 0;  // of keys beyond the limits
};

// What is wrong with one stream or both.
struct StreamProblem {
  std::vector<standin::SlotSet> rates;
  std::string text;    // what is wrong: a sentence on one line, without its full stop
  std::string advice;  // what to do about it: whole sentences on the same line
};

// How much of one stream is kept.
struct SightingLimits {
  std::size_t keys = 200000;
  std::size_t keyBytes = std::size_t{32} << 20;  // of all keys together
};

class Sightings {
 public:
  // The largest message that a gRPC client accepts by default. The module keeps that default.
  static constexpr std::size_t messageLimit = std::size_t{4} * 1024 * 1024;

  explicit Sightings(const SightingLimits& limits = {}) : limits_(limits) {}

  // Keeps this key in spite of the limits, and waits for it to come at this rate with this type.
  void expect(standin::SlotSet rate, const std::string& key, gateway::ValueType type);

  // Whether something was expected, and all of it has come.
  bool hasSeenExpected() const { return expected_ > 0 && missing_ == 0; }
  std::size_t countExpected() const { return expected_; }
  std::size_t countMissing() const { return missing_; }

  // Records one message of a stream, Fast or Slow.
  void take(standin::SlotSet rate, std::string_view message);

  // The keys of one stream, in the order of their first messages.
  const std::vector<SeenKey>& keysOf(standin::SlotSet rate) const { return streamOf(rate).keys; }

  // The keys of the fast stream, then those of the slow one: across streams, their order is random.
  std::vector<SeenKey> keys() const;

  // Null if this key has not come on the stream.
  const SeenKey* find(standin::SlotSet rate, const std::string& key) const;

  const SeenMessages& messagesOf(standin::SlotSet rate) const { return streamOf(rate).messages; }
  const SightingLimits& limits() const { return limits_; }

 private:
  struct Stream {
    SeenMessages messages;
    std::vector<SeenKey> keys;
    std::size_t keyBytes = 0;
    std::unordered_map<std::string, std::size_t> places;  // in `keys`, by key
    // By expected key, the types that have not come yet. None are left for an expectation of the
    // other stream.
    std::unordered_map<std::string, std::vector<gateway::ValueType>> expected;
  };

  const Stream& streamOf(standin::SlotSet rate) const {
    return rate == standin::SlotSet::Fast ? fast_ : slow_;
  }
  Stream& streamOf(standin::SlotSet rate) { return rate == standin::SlotSet::Fast ? fast_ : slow_; }
  void note(Stream& stream, standin::SlotSet rate, const sonalith::grpc::KeyValue& item);
  static void noteUnreadable(SeenMessages& seen, std::string_view message);
  void noteType(Stream& stream, SeenKey& seen, ValueCase type);
  bool hasRoom(const Stream& stream, const std::string& key) const;

  SightingLimits limits_;
  Stream fast_;
  Stream slow_;
  std::size_t expected_ = 0;
  std::size_t missing_ = 0;  // how many of the expected have not come
};

}  // namespace tools
