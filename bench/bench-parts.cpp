// The parts of the work for a message of COUNT values, without a network:
//
//   parse/FAMILY/COUNT    parsing the message's bytes, as gRPC does for the module
//   copy/FAMILY/COUNT     making and releasing a private copy of COUNT entries
//   search/FAMILY/COUNT   one search in the copy, on average over all of its keys
//   naive/plain/COUNT     the same, comparing one std::string after another
//   change/plain/COUNT    searching for one changed engine parameter in a copy made for it
//
//   bench-parts [--seed SEED] [OPTIONS OF GOOGLE BENCHMARK]
//
// FAMILY is one of KeyFamilies.h. "plain" has more sizes than the others. To print the nanoseconds
// of a search among 1,024 keys of each family:
//
//   bench-parts --benchmark_filter='search/.*/1024'
#include <benchmark/benchmark.h>
#include <grpcpp/impl/codegen/proto_utils.h>
#include <grpcpp/support/byte_buffer.h>
#include <grpcpp/support/slice.h>

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "bench/KeyFamilies.h"
#include "meters.pb.h"
#include "module/grpc-gateway/EngineListCopy.h"
#include "module/grpc-gateway/MeterListCopy.h"

namespace {

using benchmark::State;
using gateway::MeterListCopy;
using Entries = std::vector<gateway::MeterEntry<float>>;

Entries entriesOf(const std::vector<std::string>& keys) {
  Entries entries;
  for (const std::string& key : keys) {
    auto& entry = entries.emplace_back();
    entry.key = key;
    entry.customKey = "slot_" + std::to_string(entries.size());
  }
  return entries;
}

void parse(State& state, const Entries& entries) {
  sonalith::grpc::Meter meter;
  for (const auto& entry : entries) {
    auto& item = *meter.add_values();
    item.set_key(entry.key);
    item.mutable_value()->set_sfloat(1);
  }
  const grpc::Slice bytes(meter.SerializeAsString());
  for (auto _ : state) {
    grpc::ByteBuffer message(&bytes, 1);
    const bool parsed =
        grpc::SerializationTraits<sonalith::grpc::Meter>::Deserialize(&message, &meter).ok();
    benchmark::DoNotOptimize(parsed);
  }
}

void copy(State& state, const Entries& entries) {
  for (auto _ : state) {
    const MeterListCopy copied(entries);
    benchmark::DoNotOptimize(copied.size());
  }
}

// Calls `find` for one key after another, and counts each call as an iteration.
template <class Find>
void searchAll(State& state, const Entries& entries, Find find) {
  while (state.KeepRunningBatch(static_cast<benchmark::IterationCount>(entries.size()))) {
    for (const auto& entry : entries) benchmark::DoNotOptimize(find(entry.key));
  }
}

void search(State& state, const Entries& entries) {
  const MeterListCopy copied(entries);
  searchAll(state, entries, [&](const auto& key) { return copied.find(key, entries.size()); });
}

std::size_t naiveFind(const Entries& entries, const std::string& key) {
  for (std::size_t i = 0; i < entries.size(); ++i) {
    if (entries[i].key == key) return i;
  }
  return MeterListCopy::npos;
}

void naive(State& state, const Entries& entries) {
  searchAll(state, entries, [&](const auto& key) { return naiveFind(entries, key); });
}

void change(State& state, const Entries& entries) {
  std::vector<gateway::EngineEntry> parameters;
  for (const auto& entry : entries) parameters.push_back({entry.key, entry.key + "_of_channel"});
  const std::string name = parameters[parameters.size() / 2].customKey;
  for (auto _ : state) {
    const gateway::EngineListCopy copied(parameters);
    for (std::size_t i = 0; i < copied.size(); ++i) {
      benchmark::DoNotOptimize(copied.customKeyIs(i, name));
    }
  }
}

using Part = void (*)(State&, const Entries&);

void add(const std::string& part, Part run, const std::string& family, const Entries& entries) {
  const std::string name = part + "/" + family + "/" + std::to_string(entries.size());
  benchmark::RegisterBenchmark(name.c_str(), [=](State& state) { run(state, entries); });
}

void registerAll(std::uint64_t seed) {
  for (const auto& family : bench::keyFamilies) {
    const bool isPlain = &family == &bench::keyFamilies[0];
    for (const std::size_t count : {16, 64, 128, 256, 512, 1024, 2048, 4096}) {
      if (!isPlain && count != 128 && count != 1024 && count != 4096) continue;
      const Entries entries = entriesOf(bench::keysOf(family, seed, count));
      add("parse", parse, family.name, entries);
      add("copy", copy, family.name, entries);
      add("search", search, family.name, entries);
      if (!isPlain) continue;
      add("naive", naive, family.name, entries);
      add("change", change, family.name, entries);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  CLI::App app("The parts of the work for a message.");
  std::uint64_t seed = 1;
  app.add_option("--seed", seed);
  CLI11_PARSE(app, argc, argv);
  registerAll(seed);
  benchmark::RunSpecifiedBenchmarks();
}
