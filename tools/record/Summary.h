// What a recording holds as a whole: its streams and keys, with rates, jitter, gaps and sizes.
//
// Threads: one at a time.
// Memory: up to the limits of tools::SightingLimits for each stream.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "tools/common/Sightings.h"
#include "tools/recording/Format.h"

namespace record {

// The times between successive events, in microseconds.
class Gaps {
 public:
  void add(std::uint64_t time);

  std::uint64_t events() const { return events_; }
  double mean() const;
  // The standard deviation of the gaps.
  double jitter() const;
  std::uint64_t longest() const { return longest_; }

 private:
  std::uint64_t events_ = 0;
  std::uint64_t latest_ = 0;
  std::uint64_t longest_ = 0;
  // Of the gaps so far, by Welford's method, which stays exact for long recordings.
  double mean_ = 0;
  double squares_ = 0;
};

struct KeySummary {
  std::string key;
  std::vector<tools::ValueCase> types;  // each once, first seen first
  Gaps gaps;                            // of the messages that have the key
  std::uint64_t latestMessage = 0;      // the number of the last one, from 1
};

struct StreamSummary {
  Gaps gaps;  // of the messages
  std::uint64_t bytes = 0;
  std::uint64_t shortest = 0;
  std::uint64_t longest = 0;
  std::uint64_t values = 0;
  std::uint64_t unreadable = 0;
  std::uint64_t ignoredValues = 0;  // of keys beyond the limits
  std::uint64_t started = 0;        // attempts, or calls
  recording::LostContent lost;
  std::map<std::int32_t, std::uint64_t> ends;  // how many, by status
  std::vector<KeySummary> keys;                // in the order of their first messages
};

class Summary {
 public:
  Summary(std::string file, std::uint64_t startTime)
      : file_(std::move(file)), startTime_(startTime) {}

  // Takes the next record. With `withValues`, returns the values of a message as JSON. Returns null
  // for a message that can't be read, and for other records.
  nlohmann::ordered_json take(const recording::Record& record, bool withValues);

  // For people: a table of streams and one of keys.
  std::string text() const;
  nlohmann::ordered_json json() const;

 private:
  struct Collected {
    StreamSummary summary;
    std::size_t keyBytes = 0;
    std::unordered_map<std::string, std::size_t> places;  // in summary.keys, by key
  };

  nlohmann::ordered_json takeMessage(Collected& stream, const recording::Record& record,
                                     bool withValues);
  template <class Items>
  void takeValues(Collected& stream, const Items& items, std::uint64_t time);
  static KeySummary* find(Collected& stream, const std::string& key);

  std::string heading() const;
  double seconds() const { return static_cast<double>(latestTime_) / 1e6; }
  const StreamSummary& of(recording::Stream stream) const {
    return streams_[static_cast<std::size_t>(stream)].summary;
  }

  const std::string file_;
  const std::uint64_t startTime_;
  std::uint64_t latestTime_ = 0;
  bool isComplete_ = false;
  std::array<std::string, 3> targets_;  // the first of each stream; may be empty
  std::array<Collected, 3> streams_;
};

}  // namespace record
