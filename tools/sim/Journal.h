// What has happened in a playing simulator, for clients of its control interface: the events of
// --json, numbered from 1. It keeps the latest ones, up to a bound.
//
// Threads: any.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace sim {

class Journal {
 public:
  // What is kept: older events make room for new ones.
  static constexpr std::size_t mostEvents = 10000;
  static constexpr std::size_t mostBytes = std::size_t{16} << 20;  // of their JSON

  // Which events a client wants. An empty text means any.
  struct Query {
    std::uint64_t after = 0;  // only events with a higher number
    std::string event{};
    std::string stream{};
    std::string key{};
  };

  struct Found {
    std::vector<nlohmann::ordered_json> events;  // each with its "number" and "time"
    std::uint64_t last = 0;                      // the number of the latest event of all
    std::uint64_t lost = 0;                      // events after `after` that are no longer kept
  };

  void add(const nlohmann::ordered_json& event);
  Found find(const Query& query) const;
  // The number of the latest event; 0 if there was none.
  std::uint64_t last() const;
  // Discards all events and returns the number of the latest. The next one still gets the next
  // number, so that no client mistakes it for an old one.
  std::uint64_t clear();

  // Calls `changed` after each event from here on, on the thread that adds it; null ends that. When
  // this returns, no earlier `changed` runs any more.
  void watch(std::function<void()> changed);

 private:
  struct Entry {
    nlohmann::ordered_json event;
    std::size_t bytes;
  };

  mutable std::mutex mutex_;  // protects all below
  std::deque<Entry> entries_;
  std::size_t bytes_ = 0;      // of all entries
  std::uint64_t last_ = 0;     // the number of the latest event
  std::uint64_t lost_ = 0;     // the number of the latest event that had to make room
  std::uint64_t cleared_ = 0;  // that of the latest one that was discarded on request
  std::function<void()> changed_;
};

}  // namespace sim
