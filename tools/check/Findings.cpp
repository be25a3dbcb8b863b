#include "tools/check/Findings.h"

#include <algorithm>
#include <tuple>
#include <utility>

namespace check {

// Counts a finding. Returns whether it is to be kept.
bool Findings::counts(Rule rule, Severity severity) {
  if (severity == Severity::Warning && allowed_.contains(rule)) return false;
  return ++counts_[index(severity)] <= kept;
}

// Null if no finding covers the line.
const std::string* Findings::remedyThatCovers(const SourceLine& line) const {
  const auto found =
      std::lower_bound(covered_.begin(), covered_.end(), line.order,
                       [](const Covered& each, std::uint64_t order) { return each.order < order; });
  return found != covered_.end() && found->order == line.order ? &found->remedy : nullptr;
}

void Findings::add(const SourceLine& line, Finding finding) {
  const SourceFile& file = *line.file;
  const Weight weight = finding.rule.text().weight;
  const Severity severity = severityOf(weight, file.isDedicated());
  if (const std::string* const remedy = remedyThatCovers(line); remedy != nullptr) {
    if (weight == Weight::Warning || weight == Weight::Note) return;
    finding.remedy.words = *remedy;
  }
  if (finding.coversLine && covered_.size() < kept) {
    covered_.push_back({line.order, finding.remedy.words});
  }
  if (!counts(finding.rule, severity)) return;
  diagnostics_.push_back({.rule = finding.rule,
                          .severity = severity,
                          .file = file.name,
                          .line = line.number,
                          .column = line.offset + finding.place.begin + 1,
                          .size = finding.place.size,
                          .text = std::move(finding.text),
                          .remedy = std::move(finding.remedy.words),
                          .section = line.section ? *line.section : "",
                          .readAt = file.readAt,
                          .source = line.text,
                          .sourceColumn = line.offset + 1,
                          .order = line.order});
}

void Findings::add(const std::string& file, std::uint64_t lines, Finding finding) {
  const Severity severity = severityOf(finding.rule.text().weight, false);
  if (!counts(finding.rule, severity)) return;
  diagnostics_.push_back({.rule = finding.rule,
                          .severity = severity,
                          .file = file,
                          .text = std::move(finding.text),
                          .remedy = std::move(finding.remedy.words),
                          .order = lines + 1});
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
