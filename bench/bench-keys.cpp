// Prints the keys of all families (KeyFamilies.h) as a JSON object that has a list for each name.
//
//   bench-keys --seed SEED --count COUNT
#include <CLI/CLI.hpp>
#include <iostream>
#include <nlohmann/json.hpp>

#include "bench/KeyFamilies.h"

int main(int argc, char** argv) {
  CLI::App app("Prints the keys of all families.");
  std::uint64_t seed = 1;
  std::size_t count = 1;
  app.add_option("--seed", seed);
  app.add_option("--count", count);
  CLI11_PARSE(app, argc, argv);
  nlohmann::ordered_json keys;
  for (const auto& family : bench::keyFamilies) {
    keys[family.name] = bench::keysOf(family, seed, count);
  }
  std::cout << keys << '\n';
}
