// The kinds of faults: the name, argument and effect of each. To add a kind, add an enumerator here
// and a row to the table in FaultKinds.cpp, which parser, help and messages read.
//
// Threads: any, except that `begin` and `end` are for the thread of the Saboteur's loop.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

struct Fault;
class FaultSite;

// What a fault acts on. The first two are the meter streams; the last two are the connections of
// an address, or the engine service itself.
enum class Subject { Fast, Slow, Meters, Engine };

std::string_view nameOf(Subject subject);
std::optional<Subject> subjectCalled(std::string_view name);

enum class FaultKind {
  End,
  Garbage,
  NotUtf8,
  Oversize,
  Unknown,
  Types,
  Arrays,
  Empty,
  Stall,
  Flood,
  Half,
  Close,
  Reset,
  Refuse,
  Silent,
  Freeze,
  Drip,
  Slice,
  Limit,
  Loss,
  Delay,
  NoReply,
  Fail,
  BadReply,
  Normal,  // must stay last
};

// Which aspect of its subject a fault changes. A fault that lasts replaces another of its group.
enum class FaultGroup {
  Message,     // a message of a stream
  Stream,      // how a stream continues
  Connection,  // the connections of an address
  Bandwidth,   // how fast they are
  Slicing,     // in what pieces they bring data
  Loss,        // which messages of a stream are lost
  Latency,     // how late messages and answers come
  Answer,      // how SetParams is answered
  All,
};

enum class FaultArgument {
  None,
  Status,
  Number,
  Bytes,  // a number that may have a unit: 64kB
  Count,  // a whole number, or a range: 5..20
  Time,   // seconds or a time with a unit, and how much it varies: 20ms±5ms
};

struct FaultKindRow {
  // What a fault does at one site.
  using Act = void (*)(FaultSite& site, const Fault& fault);

  FaultKind kind;
  std::string_view name;
  FaultGroup group;
  FaultArgument argument;
  std::string_view argumentName;        // one in [...] is optional
  std::optional<double> defaultNumber;  // of an optional number
  std::string_view meaning;
  Act begin;
  Act end = nullptr;  // null: the fault is over at once
  // Whether "with 10%" strikes each message or call with this chance. The other faults happen with
  // this chance whenever their moment comes.
  bool strikesEach = false;

  bool lasts() const { return end != nullptr; }
  // Whether it acts on connections, and so needs a relay.
  bool isOfConnections() const;
  std::vector<Subject> subjects() const;
  std::string usage() const;
};

// In the order of FaultKind.
std::span<const FaultKindRow> faultKinds();
const FaultKindRow& rowOf(FaultKind kind);

// Such as "fast|slow", for messages.
std::string namesOf(const std::vector<Subject>& subjects, std::string_view separator);

}  // namespace sim
