// The gateway survives every fault of the simulator and, if the machine permits network namespaces,
// every fault of a wire. Whatever a fault leaves alone continues; streams are opened again five
// seconds after their end and no earlier, one attempt at a time; slots keep their values; a stop
// takes no longer than what it has to wait for; and nothing grows.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/proof/Proof.h"
#include "tests/proof/network/Faults.h"
#include "tests/proof/network/Trial.h"
#include "tests/proof/network/Wire.h"

namespace network {
namespace {

// A sanitizer keeps freed memory, and has threads of its own.
#ifdef GATEWAY_SANITIZED
constexpr bool isSanitized = true;
#else
constexpr bool isSanitized = false;
#endif

constexpr char part[] = "Faults of the network";

// Trials mostly wait: for five seconds, or for a second's worth of values.
constexpr std::size_t atATime = 16;
constexpr std::size_t sampled = 14;
constexpr int stopsEach = 4;
constexpr int seriesLength = 8;
// gRPC makes threads and buffers when it first needs them. From the second fault of a kind on it
// should not need more, except for memory that the allocator happens to keep.
constexpr int threadsOfGrpc = 4;
constexpr double memoryOfFirstFault = 32;  // MiB
constexpr double memoryOfFurtherFaults = 8;

struct Tried {
  Cell cell;
  Finding finding;
};

// The cells that the machine permits.
std::vector<Cell> possibleCells(bool hasWires) {
  auto cells = allCells();
  std::erase_if(cells, [&](const Cell& cell) { return cell.fault->isOfWire() && !hasWires; });
  return cells;
}

std::vector<Cell> sample(std::vector<Cell> cells, std::mt19937_64& random) {
  std::erase_if(cells, [](const Cell& cell) { return cell.fault->isLong(); });
  std::shuffle(cells.begin(), cells.end(), random);
  cells.resize(std::min(cells.size(), sampled));
  return cells;
}

// Every cell; stops several times, since they are short and depend on microseconds; and a series of
// each fault, to see whether anything grows.
std::vector<Cell> everything(std::vector<Cell> cells, std::mt19937_64& random) {
  std::vector<Cell> all;
  std::set<const Fault*> inSeries;
  std::shuffle(cells.begin(), cells.end(), random);
  for (const auto& cell : cells) {
    const bool stops = cell.moment == Moment::Stopping || cell.moment == Moment::Flushing;
    all.insert(all.end(), stops && !cell.fault->isLong() ? stopsEach : 1, cell);
    const bool again = cell.moment == Moment::Running && !cell.fault->isLong();
    if (!again || !inSeries.insert(cell.fault).second) continue;
    all.push_back(cell);
    all.back().rounds = seriesLength;
  }
  return all;
}

// The longest come first, so that the last ones are short.
double lengthOf(const Cell& cell) {
  return cell.rounds * static_cast<double>(cell.fault->held.count());
}

std::vector<Cell> chooseCells(bool hasWires) {
  std::mt19937_64 random(proof::seed());
  auto cells = possibleCells(hasWires);
  cells = proof::isFull() ? everything(std::move(cells), random) : sample(std::move(cells), random);
  for (auto& cell : cells) cell.seed = random();
  std::stable_sort(cells.begin(), cells.end(),
                   [](const auto& a, const auto& b) { return lengthOf(a) > lengthOf(b); });
  return cells;
}

std::vector<Tried> tryAll(const std::vector<Cell>& cells) {
  std::vector<Tried> all(cells.size());
  std::atomic<std::size_t> next = 0;
  const auto work = [&] {
    for (auto i = next++; i < cells.size(); i = next++) all[i] = {cells[i], tryOut(cells[i])};
  };
  std::vector<std::jthread> workers;
  for (std::size_t i = 0; i < std::min(atATime, cells.size()); ++i) workers.emplace_back(work);
  workers.clear();
  return all;
}

bool isSeries(const Tried& tried) {
  return tried.cell.rounds > 1;
}

void checkGrowth(Tried& tried) {
  auto& finding = tried.finding;
  if (!finding.isMeasured || isSanitized) return;
  const double memory = isSeries(tried) ? memoryOfFurtherFaults : memoryOfFirstFault;
  if (finding.moreThreads > threadsOfGrpc) finding.problems.emplace_back("the threads increased");
  if (finding.moreMemory > memory) finding.problems.emplace_back("the memory grew");
}

using Trials = std::vector<const Tried*>;

// The most that single faults added, or further faults of a series.
std::vector<proof::Measured> growthOf(const Trials& trials, bool ofSeries) {
  int threads = 0;
  double memory = 0;
  bool any = false;
  for (const auto* trial : trials) {
    if (!trial->finding.isMeasured || isSeries(*trial) != ofSeries) continue;
    threads = std::max(threads, trial->finding.moreThreads);
    memory = std::max(memory, trial->finding.moreMemory);
    any = true;
  }
  if (!any || isSanitized) return {};
  const std::string after = ofSeries ? " after further faults" : " after the first fault";
  return {proof::mostOf("threads" + after, threads, "+.0f", "").within(threadsOfGrpc),
          proof::mostOf("memory" + after, memory, "+.1f", "MiB")
              .within(ofSeries ? memoryOfFurtherFaults : memoryOfFirstFault)};
}

std::vector<double> retriesOf(const Trials& trials) {
  std::vector<double> retries;
  for (const auto* trial : trials) {
    retries.insert(retries.end(), trial->finding.retries.begin(), trial->finding.retries.end());
  }
  return retries;
}

std::vector<proof::Measured> figuresOf(const Trials& trials) {
  std::vector<proof::Measured> figures;
  const auto retries = retriesOf(trials);
  if (!retries.empty()) {
    const auto [least, most] = std::minmax_element(retries.begin(), retries.end());
    figures.push_back({"time until the retry", *least, *most, ".2f", "s"});
  }
  double stop = 0;
  for (const auto* trial : trials) stop = std::max(stop, trial->finding.stop);
  figures.push_back(proof::mostOf("longest stop", stop, ".2f", "s"));
  for (const bool ofSeries : {false, true}) {
    for (const auto& each : growthOf(trials, ofSeries)) figures.push_back(each);
  }
  return figures;
}

proof::Counts triedOf(const Trials& trials) {
  std::uint64_t faults = 0;
  std::set<std::string> cells;
  for (const auto* trial : trials) {
    faults += static_cast<std::uint64_t>(trial->cell.rounds);
    cells.insert(nameOf(trial->cell));
  }
  return {{"cells", cells.size()}, {"runs", trials.size()}, {"faults", faults}};
}

std::string groupOf(const Fault& fault) {
  if (fault.isLong()) return "silence, until the gateway gives up the connection";
  return fault.isOfWire() ? "a fault of the wire" : "a fault of the simulator";
}

void reportFault(const Fault& fault, const Trials& trials) {
  for (const auto* trial : trials) {
    for (const auto& problem : trial->finding.problems) {
      ADD_FAILURE() << nameOf(trial->cell) << ", seed " << trial->cell.seed << ": " << problem;
    }
  }
  proof::report({part,
                 groupOf(fault),
                 fault.name,
                 triedOf(trials),
                 "everything else continues, streams retry after five seconds, slots keep their "
                 "values",
                 {{"retries seen", retriesOf(trials).size()}},
                 figuresOf(trials)});
}

// Faults with problems come last: all rows after the first problem are marked as failed.
void reportAll(const std::vector<Tried>& all) {
  const auto failed = [](const Trials& trials) {
    return std::any_of(trials.begin(), trials.end(),
                       [](const auto* trial) { return !trial->finding.problems.empty(); });
  };
  for (const bool wanted : {false, true}) {
    for (const auto& fault : faults()) {
      Trials trials;
      for (const auto& trial : all) {
        if (trial.cell.fault == &fault) trials.push_back(&trial);
      }
      if (!trials.empty() && failed(trials) == wanted) reportFault(fault, trials);
    }
  }
}

TEST(Network, FaultsOfEveryPartAtEveryMomentAreSurvived) {
  const auto forbidden = whatForbidsWires();
  auto all = tryAll(chooseCells(forbidden.empty()));
  EXPECT_FALSE(all.empty());
  for (auto& tried : all) checkGrowth(tried);
  reportAll(all);
  if (forbidden.empty()) return;
  proof::report({part,
                 "a fault of the wire",
                 "not tried",
                 {{"cells", 0}},
                 "this machine permits no network namespaces: " + forbidden});
}

}  // namespace
}  // namespace network
