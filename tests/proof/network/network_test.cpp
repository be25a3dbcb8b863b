// The gateway through every fault of the network: of the simulator's, and of wires between network
// namespaces, where the machine permits them. What a fault leaves alone goes on; streams come back
// five seconds after their end and no earlier, one attempt at a time; slots keep their values; the
// stop takes no longer than what it has to wait for; and nothing grows.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <map>
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

// A sanitizer keeps what was freed and has threads of its own.
#ifdef GATEWAY_SANITIZED
constexpr bool isSanitized = true;
#else
constexpr bool isSanitized = false;
#endif

// Cells mostly wait: for five seconds, or for a second's worth of values.
constexpr std::size_t atATime = 16;
constexpr std::size_t sampled = 14;
constexpr int stopsEach = 4;
constexpr int seriesLength = 8;
// gRPC makes threads and buffers when it first needs them; from the second fault of a kind on it
// has what it needs, but for what the allocator happens to keep.
constexpr int threadsOfGrpc = 4;
constexpr double memoryAtFirst = 32;  // MiB
constexpr double memoryAgain = 8;

struct Tried {
  Cell cell;
  Finding finding;
};

// Without what the machine does not permit.
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

// Stops are short, and what may go wrong in them depends on microseconds: more of them. And each
// fault again and again, for what may grow.
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

// The longest first, so that none is left at the end.
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
  const double memory = isSeries(tried) ? memoryAgain : memoryAtFirst;
  if (finding.moreThreads > threadsOfGrpc) finding.problems.emplace_back("there are more threads");
  if (finding.moreMemory > memory) finding.problems.emplace_back("there is more memory");
}

// Of single faults, or of series: the most of each.
std::string growthOf(const std::vector<const Tried*>& trials, bool ofSeries) {
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
  return fmt::format("; {} {:+} threads, {:+.1f} MiB", ofSeries ? "from the second on" : "at first",
                     threads, memory);
}

std::string figuresOf(const std::vector<const Tried*>& trials) {
  std::vector<double> retries;
  double stop = 0;
  for (const auto* trial : trials) {
    const auto& finding = trial->finding;
    retries.insert(retries.end(), finding.retries.begin(), finding.retries.end());
    stop = std::max(stop, finding.stop);
  }
  auto text = fmt::format("{} retries seen", retries.size());
  if (!retries.empty()) {
    const auto [least, most] = std::minmax_element(retries.begin(), retries.end());
    text += fmt::format(" {:.2f} to {:.2f} s after the end", *least, *most);
  }
  text += fmt::format("; longest stop {:.2f} s", stop);
  return text + growthOf(trials, false) + growthOf(trials, true);
}

std::string triedOf(const std::vector<const Tried*>& trials) {
  int faults = 0;
  std::map<std::string, int> cells;
  for (const auto* trial : trials) {
    faults += trial->cell.rounds;
    ++cells[nameOf(trial->cell)];
  }
  return fmt::format("{} cells in {} runs, {} faults", cells.size(), trials.size(), faults);
}

void reportFault(const Fault& fault, const std::vector<const Tried*>& trials) {
  for (const auto* trial : trials) {
    for (const auto& problem : trial->finding.problems) {
      ADD_FAILURE() << nameOf(trial->cell) << ", seed " << trial->cell.seed << ": " << problem;
    }
  }
  proof::report({"Faults of the network", fault.name, triedOf(trials), figuresOf(trials)});
}

// Those that failed come last: from the first of them on, rows say that this test has.
void reportAll(const std::vector<Tried>& all) {
  const auto failed = [](const std::vector<const Tried*>& trials) {
    return std::any_of(trials.begin(), trials.end(),
                       [](const auto* trial) { return !trial->finding.problems.empty(); });
  };
  for (const bool wanted : {false, true}) {
    for (const auto& fault : faults()) {
      std::vector<const Tried*> trials;
      for (const auto& trial : all) {
        if (trial.cell.fault == &fault) trials.push_back(&trial);
      }
      if (!trials.empty() && failed(trials) == wanted) reportFault(fault, trials);
    }
  }
}

TEST(Network, HoldsThroughEachFaultOfEachPartAtEachMoment) {
  const auto forbidden = whatForbidsWires();
  auto all = tryAll(chooseCells(forbidden.empty()));
  EXPECT_FALSE(all.empty());
  for (auto& tried : all) checkGrowth(tried);
  reportAll(all);
  if (forbidden.empty()) return;
  proof::report({"Faults of the network", "wires between network namespaces", "0 cells",
                 "not possible here: " + forbidden});
}

}  // namespace
}  // namespace network
