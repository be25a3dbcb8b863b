// Generates random configurations from a seed. The same seed gives the same texts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

class ConfigGenerator {
 public:
  explicit ConfigGenerator(std::uint32_t seed) : random_(seed) {}

  // Random bytes, mostly those that mean something to the INI reader.
  std::string soup();

  // A configuration with sections and entries. `badness` is the number of mistakes per hundred
  // lines. File lines name `files`.
  std::string configuration(unsigned badness, const std::vector<std::string>& files);

  // The text with a few common mistakes that have a repair.
  std::string mistyped(std::string text);

  // A number from 0 to `bound` - 1.
  std::size_t below(std::size_t bound) { return random_() % bound; }

 private:
  bool oneIn(std::size_t n) { return below(n) == 0; }
  const std::string& pick(const std::vector<std::string>& texts) {
    return texts[below(texts.size())];
  }
  std::string settings(unsigned badness);
  std::string entries(unsigned badness);
  std::string entry(bool isMeter, unsigned badness);
  std::string spoilt(const std::string& line);

  std::mt19937 random_;
};
