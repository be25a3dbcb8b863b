#include "tests/proof/Proof.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>
#include <random>
#include <string_view>

namespace proof {
namespace {

// Keeps its members in their order, which is that of the table's texts.
using Json = nlohmann::ordered_json;

std::string_view setting(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "" : value;
}

std::uint64_t number(const char* name, std::uint64_t otherwise) {
  const std::string_view text = setting(name);
  return text.empty() ? otherwise : std::stoull(std::string(text));
}

// As long as no proof of this process asks for the seed, rows do not depend on it.
std::atomic<std::uint64_t> usedSeed{0};
std::atomic<bool> seedWasUsed{false};

std::uint64_t chooseSeed() {
  // Short enough to type.
  const std::uint64_t chosen = number("GATEWAY_PROOF_SEED", std::random_device()() % 1'000'000);
  std::cout << "To repeat this run: GATEWAY_PROOF_SEED=" << chosen << std::endl;
  usedSeed = chosen;
  seedWasUsed = true;
  return chosen;
}

Json jsonOf(const Counts& counts) {
  Json object = Json::object();
  for (const auto& [name, count] : counts) object[name] = count;
  return object;
}

Json jsonOf(const Measured& measured) {
  Json object{{"name", measured.name}};
  if (measured.least) object["least"] = *measured.least;
  object["most"] = measured.most;
  object["format"] = measured.format;
  object["unit"] = measured.unit;
  if (measured.limit) object["limit"] = *measured.limit;
  return object;
}

// tests/proof/table.py reads these fields.
Json jsonOf(const Row& row) {
  const auto* const test = ::testing::UnitTest::GetInstance()->current_test_info();
  Json fields{{"part", row.part},           {"group", row.group}, {"what", row.what},
              {"tried", jsonOf(row.tried)}, {"held", row.held},   {"counted", jsonOf(row.counted)}};
  fields["measured"] = Json::array();
  for (const Measured& each : row.measured) fields["measured"].push_back(jsonOf(each));
  fields["failed"] = ::testing::Test::HasFailure();
  if (seedWasUsed) fields["seed"] = usedSeed.load();
  fields["test"] = std::string(test->test_suite_name()) + "." + test->name();
  return fields;
}

void keep(const std::string& row) {
  static std::atomic<int> count{0};
  const std::filesystem::path folder = setting("GATEWAY_PROOF_ROWS");
  const std::string name = std::to_string(getpid()) + "-" + std::to_string(count++) + ".json";
  std::ofstream file(folder / name);
  file << row << '\n';
  if (!file.flush()) ADD_FAILURE() << "can't write " << folder / name;
}

}  // namespace

Measured measured(const std::string& name, double value, const std::string& format,
                  const std::string& unit) {
  return {name, value, value, format, unit};
}

Measured mostOf(const std::string& name, double value, const std::string& format,
                const std::string& unit) {
  return {name, std::nullopt, value, format, unit};
}

Measured mostOf(const std::string& name, std::chrono::milliseconds time) {
  return mostOf(name, static_cast<double>(time.count()), ".0f", "ms");
}

void report(const Row& row) {
  for (const Measured& each : row.measured) {
    if (!each.limit) continue;
    EXPECT_LE(each.most, *each.limit) << row.group << ": " << each.name;
  }
  const std::string text = jsonOf(row).dump();
  std::cout << text << std::endl;
  if (!setting("GATEWAY_PROOF_ROWS").empty()) keep(text);
}

bool isFull() {
  return setting("GATEWAY_PROOF_SCALE") == "full";
}

std::uint64_t scaled(std::uint64_t quick, std::uint64_t full) {
  return isFull() ? full : quick;
}

std::chrono::minutes soak() {
  return std::chrono::minutes(number("GATEWAY_PROOF_SOAK", 0));
}

std::uint64_t seed() {
  static const std::uint64_t chosen = chooseSeed();
  return chosen;
}

}  // namespace proof
