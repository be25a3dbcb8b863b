#include "tools/common/Suggestion.h"

#include <algorithm>
#include <cstddef>

namespace tools {
namespace {

// Optimal string alignment distance.
std::size_t distance(std::string_view a, std::string_view b) {
  const std::size_t width = b.size() + 1;
  std::vector<std::size_t> cells((a.size() + 1) * width);
  const auto cell = [&](std::size_t i, std::size_t j) -> std::size_t& {
    return cells[i * width + j];
  };
  for (std::size_t i = 0; i <= a.size(); ++i) cell(i, 0) = i;
  for (std::size_t j = 0; j <= b.size(); ++j) cell(0, j) = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t replaced = cell(i - 1, j - 1) + (a[i - 1] == b[j - 1] ? 0 : 1);
      cell(i, j) = std::min({replaced, cell(i - 1, j) + 1, cell(i, j - 1) + 1});
      const bool swapped = i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1];
      if (swapped) cell(i, j) = std::min(cell(i, j), cell(i - 2, j - 2) + 1);
    }
  }
  return cell(a.size(), b.size());
}

}  // namespace

std::string closestTo(std::string_view word, const std::vector<std::string>& candidates) {
  std::size_t least = std::max<std::size_t>(1, word.size() / 3) + 1;
  std::string closest;
  for (const std::string& candidate : candidates) {
    const std::size_t wrong = distance(word, candidate);
    if (wrong >= least) continue;
    least = wrong;
    closest = candidate;
  }
  return closest;
}

std::string didYouMean(std::string_view word, const std::vector<std::string>& candidates) {
  const std::string closest = closestTo(word, candidates);
  return closest.empty() ? "" : ", did you mean \"" + closest + "\"?";
}

}  // namespace tools
