#include "tools/check/Findings.h"

#include <algorithm>
#include <tuple>
#include <utility>

namespace check {

void Findings::add(Diagnostic diagnostic) {
  const bool isWarning = diagnostic.severity == Severity::Warning;
  if (isWarning && allowed_.contains(diagnostic.rule)) return;
  if (++counts_[index(diagnostic.severity)] > kept) return;
  diagnostics_.push_back(std::move(diagnostic));
}

std::size_t Findings::omitted() const {
  std::size_t omitted = 0;
  for (const std::size_t count : counts_) omitted += count - std::min(count, kept);
  return omitted;
}

std::vector<Diagnostic> Findings::take() {
  std::stable_sort(diagnostics_.begin(), diagnostics_.end(), [](const auto& a, const auto& b) {
    return std::tie(a.order, a.column) < std::tie(b.order, b.column);
  });
  return std::exchange(diagnostics_, {});
}

}  // namespace check
