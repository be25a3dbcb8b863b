// The parts of the work for a message of N values, without a network:
//
//   parse/N    parsing the message's bytes into the buffer that all messages use
//   copy/N     making and releasing a private copy of N entries
//   search/N   searching for each of N keys in the copy
//   naive/N    the same, comparing one std::string after another: shows what the scan gains
//   change/N   searching for one changed engine parameter among N entries, in a copy made for it
//
//   bench-parts --values FOLDER [OPTIONS OF GOOGLE BENCHMARK]
//
// For each N, FOLDER has a file parts-N with a line "TYPE KEY" for each value. N may be any name.
#include <benchmark/benchmark.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "meters.pb.h"
#include "module/grpc-gateway/EngineListCopy.h"
#include "module/grpc-gateway/MeterListCopy.h"

namespace {

using gateway::MeterListCopy;
using Entries = std::vector<gateway::MeterEntry<float>>;

Entries entriesOf(const std::filesystem::path& file) {
  Entries entries;
  std::ifstream lines(file);
  for (std::string type, key; lines >> type >> key;) {
    auto& entry = entries.emplace_back();
    entry.key = key;
    entry.customKey = "slot_" + std::to_string(entries.size());
  }
  return entries;
}

void parse(benchmark::State& state, const Entries& entries) {
  sonalith::grpc::Meter source;
  for (const auto& entry : entries) {
    auto& item = *source.add_values();
    item.set_key(entry.key);
    item.mutable_value()->set_sfloat(1);
  }
  const std::string bytes = source.SerializeAsString();
  sonalith::grpc::Meter meter;
  for (auto _ : state) benchmark::DoNotOptimize(meter.ParseFromString(bytes));
}

void copy(benchmark::State& state, const Entries& entries) {
  for (auto _ : state) {
    const MeterListCopy copied(entries);
    benchmark::DoNotOptimize(copied.size());
  }
}

void search(benchmark::State& state, const Entries& entries) {
  const MeterListCopy copied(entries);
  for (auto _ : state) {
    for (const auto& entry : entries) {
      benchmark::DoNotOptimize(copied.find(entry.key, entries.size()));
    }
  }
}

std::size_t naiveFind(const Entries& entries, const std::string& key) {
  for (std::size_t i = 0; i < entries.size(); ++i) {
    if (entries[i].key == key) return i;
  }
  return MeterListCopy::npos;
}

void naive(benchmark::State& state, const Entries& entries) {
  for (auto _ : state) {
    for (const auto& entry : entries) benchmark::DoNotOptimize(naiveFind(entries, entry.key));
  }
}

void change(benchmark::State& state, const Entries& entries) {
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

void registerAll(const std::filesystem::path& folder) {
  for (const auto& file : std::filesystem::directory_iterator(folder)) {
    const std::string name = file.path().filename();
    if (!name.starts_with("parts-")) continue;
    const std::string size = name.substr(name.find('-') + 1);
    const Entries entries = entriesOf(file.path());
    const auto add = [&](const std::string& part, void (*run)(benchmark::State&, const Entries&)) {
      benchmark::RegisterBenchmark((part + "/" + size).c_str(),
                                   [=](benchmark::State& state) { run(state, entries); });
    };
    add("parse", parse);
    add("copy", copy);
    add("search", search);
    add("naive", naive);
    add("change", change);
  }
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  CLI::App app("The parts of the work for a message.");
  std::string folder;
  app.add_option("--values", folder)->required();
  CLI11_PARSE(app, argc, argv);
  registerAll(folder);
  benchmark::RunSpecifiedBenchmarks();
}
