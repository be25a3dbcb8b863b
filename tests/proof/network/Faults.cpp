#include "tests/proof/network/Faults.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>

namespace network {
namespace {

using sim::FaultGroup;
using sim::FaultKind;
using std::chrono::milliseconds;
using std::chrono::seconds;

// gRPC notices a frozen peer after about twenty seconds while messages flow; see docs/servers.md.
constexpr seconds untilGivenUp{32};

constexpr std::array parts{Part::Fast, Part::Slow, Part::SetParams};
constexpr std::array moments{Moment::Running, Moment::Waiting, Moment::Stopping, Moment::Flushing};

constexpr std::array partNames{"fast", "slow", "SetParams"};
constexpr std::array momentNames{"running", "waiting", "stopping", "flushing"};

Effect effectOf(FaultKind kind) {
  switch (kind) {
    case FaultKind::End:
    case FaultKind::Garbage:
    case FaultKind::NotUtf8:
    case FaultKind::Oversize:
      return Effect::EndsStream;
    case FaultKind::Close:
    case FaultKind::Reset:
    case FaultKind::Refuse:
    case FaultKind::Silent:
      return Effect::EndsConnection;
    case FaultKind::Half:
      return Effect::EndsWhenOver;
    case FaultKind::Unknown:
    case FaultKind::Types:
    case FaultKind::Arrays:
    case FaultKind::Empty:
    case FaultKind::Stall:
    case FaultKind::Flood:
    case FaultKind::Freeze:
    case FaultKind::Drip:
    case FaultKind::Slice:
    case FaultKind::Limit:
    case FaultKind::Loss:
    case FaultKind::Delay:
    case FaultKind::NoReply:
    case FaultKind::Fail:
    case FaultKind::BadReply:
    case FaultKind::Normal:
      break;
  }
  return Effect::None;
}

bool silences(FaultKind kind) {
  return kind == FaultKind::Stall || kind == FaultKind::Half || kind == FaultKind::Freeze ||
         kind == FaultKind::Loss;
}

// An unanswered call is answered when the simulator changes how it answers.
bool endsCall(const sim::FaultKindRow& row) {
  if (row.kind == FaultKind::NoReply) return false;
  return row.group == FaultGroup::Answer || row.kind == FaultKind::Normal ||
         effectOf(row.kind) == Effect::EndsConnection;
}

// The argument, if the fault requires one.
std::string argumentOf(const sim::FaultKindRow& row) {
  switch (row.argument) {
    case sim::FaultArgument::Status:
      return " UNAVAILABLE";
    case sim::FaultArgument::Time:
      return " 0.5";
    case sim::FaultArgument::Bytes:
      return " 2000";
    case sim::FaultArgument::None:
    case sim::FaultArgument::Number:
    case sim::FaultArgument::Count:
      break;
  }
  return "";
}

bool hasSubject(const sim::FaultKindRow& row, sim::Subject subject) {
  const auto subjects = row.subjects();
  return std::find(subjects.begin(), subjects.end(), subject) != subjects.end();
}

std::string subjectOf(const sim::FaultKindRow& row, Part part) {
  if (part == Part::SetParams) return "engine";
  if (!hasSubject(row, sim::Subject::Fast)) return "meters";
  return partNames[static_cast<std::size_t>(part)];
}

Fault ofSimulator(const sim::FaultKindRow& row) {
  Fault fault;
  fault.name = row.name;
  fault.kind = row.kind;
  fault.effect = effectOf(row.kind);
  fault.lasts = row.lasts();
  fault.silences = silences(row.kind);
  fault.endsCall = endsCall(row);
  return fault;
}

Fault ofWire(const std::string& name, const Conditions& conditions, Effect effect = Effect::None) {
  Fault fault;
  fault.name = name;
  fault.conditions = conditions;
  fault.effect = effect;
  fault.silences = !conditions.toClient || !conditions.isPlugged || !conditions.isUp;
  fault.endsCall = conditions.resets;
  return fault;
}

// The same fault, but until the gateway gives up the connection.
Fault prolonged(Fault fault) {
  fault.name += ", for " + std::to_string(untilGivenUp.count()) + " s";
  fault.effect = Effect::EndsConnection;
  fault.endsCall = true;
  fault.held = untilGivenUp;
  return fault;
}

std::vector<Fault> makeFaults() {
  std::vector<Fault> all;
  for (const auto& row : sim::faultKinds()) all.push_back(ofSimulator(row));
  all.push_back(prolonged(ofSimulator(sim::rowOf(FaultKind::Freeze))));
  all.push_back(ofWire("delay of 150 ms each way", {.delay = milliseconds(150)}));
  all.push_back(ofWire("loss of 10 %", {.loss = 0.1}));
  all.push_back(ofWire("duplication of 30 %", {.duplication = 0.3}));
  all.push_back(ofWire("reordering of 30 %", {.reordering = 0.3}));
  all.push_back(ofWire("corruption of 10 %", {.corruption = 0.1}));
  const auto hole = ofWire("black hole", {.toServer = false, .toClient = false});
  const auto cable = ofWire("unplugged cable", {.isPlugged = false});
  all.push_back(hole);
  all.push_back(ofWire("black hole towards the server", {.toServer = false}));
  all.push_back(ofWire("black hole towards the gateway", {.toClient = false}));
  all.push_back(ofWire("reset by the network", {.resets = true}, Effect::EndsConnection));
  all.push_back(cable);
  // Without a route, Linux sometimes gives up a connection after the first of TCP's intervals:
  // gRPC's keepalive sets a time limit, and Linux does not know since when it has been trying.
  all.push_back(ofWire("interface down", {.isUp = false}, Effect::MayEndBoth));
  all.push_back(prolonged(hole));
  all.push_back(prolonged(cable));
  return all;
}

}  // namespace

std::span<const Fault> faults() {
  static const auto all = makeFaults();
  return all;
}

bool Fault::canActOn(Part part) const {
  if (isOfWire()) return true;
  const auto has = [&](sim::Subject subject) { return hasSubject(sim::rowOf(*kind), subject); };
  if (part == Part::SetParams) return has(sim::Subject::Engine);
  return has(sim::Subject::Meters) ||
         has(part == Part::Fast ? sim::Subject::Fast : sim::Subject::Slow);
}

std::string Fault::lineFor(Part part) const {
  const auto& row = sim::rowOf(*kind);
  return std::string(row.name) + " " + subjectOf(row, part) + argumentOf(row);
}

std::string Fault::endLineFor(Part part) const {
  return "normal " + subjectOf(sim::rowOf(*kind), part);
}

std::string nameOf(const Cell& cell) {
  return cell.fault->name + ", " + partNames[static_cast<std::size_t>(cell.part)] + ", " +
         momentNames[static_cast<std::size_t>(cell.moment)] +
         (cell.rounds > 1 ? " " + std::to_string(cell.rounds) + " times" : "");
}

std::vector<Cell> allCells() {
  std::vector<Cell> cells;
  for (const auto& fault : faults()) {
    for (const auto part : parts) {
      if (!fault.canActOn(part)) continue;
      for (const auto moment : moments) {
        // A long fault differs from a short one only for open streams and for a stop with a call.
        const bool differs =
            moment == Moment::Running || (moment == Moment::Stopping && part == Part::SetParams);
        if (!fault.isLong() || differs) {
          cells.push_back({.fault = &fault, .part = part, .moment = moment, .seed = 0});
        }
      }
    }
  }
  return cells;
}

}  // namespace network
