// The parts of the work for a message of COUNT values, without a network:
//
//   read/FAMILY/COUNT     reading the message's bytes, as gRPC does for the module
//   search/FAMILY/COUNT   one search in a private copy of COUNT entries, on average over its keys
//   copy/FAMILY/COUNT     making and releasing such a copy
//   parse/plain/COUNT     reading them with the generated parser, as gRPC does for other clients
//   naive/plain/COUNT     one search that compares one std::string after another
//   change/plain/COUNT    searching for one changed engine parameter in a copy made for it
//
//   bench-parts [--seed SEED] [OPTIONS OF GOOGLE BENCHMARK]
//
// FAMILY is one of KeyFamilies.h. To print the nanoseconds of a search among 1,024 keys of each:
//
//   bench-parts --benchmark_filter='search/.*/1024'
#include <benchmark/benchmark.h>
#include <grpcpp/support/byte_buffer.h>
#include <grpcpp/support/slice.h>

#include <CLI/CLI.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "bench/KeyFamilies.h"
#include "meters.grpc.pb.h"
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

sonalith::grpc::Meter messageOf(const Entries& entries) {
  sonalith::grpc::Meter meter;
  for (const auto& entry : entries) {
    auto& item = *meter.add_values();
    item.set_key(entry.key);
    item.mutable_value()->set_sfloat(1);
  }
  return meter;
}

void read(State& state, const Entries& entries) {
  using Traits = grpc::SerializationTraits<sonalith::grpc::Meter>;
  const grpc::Slice bytes(messageOf(entries).SerializeAsString());
  sonalith::grpc::Meter meter;
  for (auto _ : state) {
    grpc::ByteBuffer message(&bytes, 1);
    benchmark::DoNotOptimize(Traits::Deserialize(&message, &meter).ok());
  }
}

void parse(State& state, const Entries& entries) {
  const std::string bytes = messageOf(entries).SerializeAsString();
  sonalith::grpc::Meter meter;
  for (auto _ : state) benchmark::DoNotOptimize(meter.ParseFromString(bytes));
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
  const gateway::EngineListCopy packed(parameters);
  for (auto _ : state) {
    const gateway::EngineListCopy copied(packed);
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
  for (const std::size_t count : {16, 128, 1024, 4096}) {
    for (const auto& family : bench::keyFamilies) {
      const Entries entries = entriesOf(bench::keysOf(family, seed, count));
      add("read", read, family.name, entries);
      add("search", search, family.name, entries);
      add("copy", copy, family.name, entries);
      if (family.name != std::string_view("plain")) continue;
      add("parse", parse, family.name, entries);
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
