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

std::string_view setting(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "" : value;
}

std::uint64_t number(const char* name, std::uint64_t otherwise) {
  const std::string_view text = setting(name);
  return text.empty() ? otherwise : std::stoull(std::string(text));
}

// Nothing when no proof of this process has asked for it: then it depends on no seed.
std::atomic<std::uint64_t> usedSeed{0};
std::atomic<bool> seedWasUsed{false};

std::uint64_t chooseSeed() {
  // Short enough to be typed.
  const std::uint64_t chosen = number("GATEWAY_PROOF_SEED", std::random_device()() % 1'000'000);
  std::cout << "To see this run again: GATEWAY_PROOF_SEED=" << chosen << std::endl;
  usedSeed = chosen;
  seedWasUsed = true;
  return chosen;
}

void keep(const nlohmann::json& row) {
  static std::atomic<int> count{0};
  const std::filesystem::path folder = setting("GATEWAY_PROOF_ROWS");
  const std::string name = std::to_string(getpid()) + "-" + std::to_string(count++) + ".json";
  std::ofstream file(folder / name);
  file << row.dump() << '\n';
  if (!file.flush()) ADD_FAILURE() << "can't write " << folder / name;
}

}  // namespace

void report(const Row& row) {
  const auto* const test = ::testing::UnitTest::GetInstance()->current_test_info();
  const bool failed = ::testing::Test::HasFailure();
  const nlohmann::json fields = {
      {"part", row.part},
      {"what", row.what},
      {"tried", row.tried},
      {"held", (failed ? "FAILED: " : "") + row.held},
      {"seed", seedWasUsed ? nlohmann::json(usedSeed.load()) : nlohmann::json()},
      {"test", std::string(test->test_suite_name()) + "." + test->name()},
  };
  std::cout << row.part << " | " << row.what << " | " << row.tried << " | "
            << fields["held"].get<std::string>() << std::endl;
  if (!setting("GATEWAY_PROOF_ROWS").empty()) keep(fields);
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
