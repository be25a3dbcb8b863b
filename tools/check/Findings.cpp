#include "tools/check/Findings.h"

#include <fmt/format.h>

#include <algorithm>
#include <functional>
#include <tuple>
#include <utility>

namespace check {

// Whether an earlier reading of the same file gave this finding. A file that is included twice has
// each of its mistakes only once.
bool Findings::isRepeated(const SourceLine& line, const Finding& finding) {
  constexpr std::size_t most = 1000000;
  if (!line.file->isDedicated() || found_.size() >= most) return false;
  const std::string identity =
      fmt::format("{} {} {} {} {}", finding.rule.index(), line.number,
                  line.offset + finding.place.begin, line.file->name, finding.text);
  const bool isNew = found_.insert(std::hash<std::string>()(identity)).second;
  return !isNew && line.file->isReadAgain;
}

// Counts a finding. Returns whether it is to be kept.
bool Findings::isKept(Rule rule, Severity severity) {
  if (severity == Severity::Warning && allowed_.contains(rule)) return false;
  ++counts_[index(severity)];
  return ++ruleCounts_[rule.index()] <= kept;
}

void Findings::escalate(std::size_t diagnostic, Severity severity) {
  Severity& current = diagnostics_[diagnostic].severity;
  if (severity != Severity::Error || current == Severity::Error) return;
  --counts_[index(current)];
  ++counts_[index(severity)];
  current = severity;
}

// Makes the finding a note of the diagnostic. A warning adds nothing, since the same remedy helps.
bool Findings::isNoteOf(std::size_t diagnostic, const Placed& placed) {
  constexpr std::size_t most = 10;
  auto& notes = diagnostics_[diagnostic].notes;
  if (placed.severity == Severity::Error && notes.size() < most) {
    notes.push_back({placed.finding.rule, placed.finding.text, placed.file.name, placed.line});
  }
  escalate(diagnostic, placed.severity);
  return true;
}

// Whether an earlier diagnostic covers the finding, which then becomes a note of that diagnostic,
// or only raises its severity.
bool Findings::isCovered(const Placed& placed) {
  const Finding& finding = placed.finding;
  if (const auto found = files_.find(&placed.file); found != files_.end()) {
    escalate(found->second, placed.severity);
    return true;
  }
  if (const auto found = lines_.find(placed.order); found != lines_.end()) {
    const bool isEmptyKey = finding.rule == Rule("empty-key");
    if (found->second.scope == Scope::Line || isEmptyKey) {
      return isNoteOf(found->second.diagnostic, placed);
    }
  }
  if (finding.cause == nullptr) return false;
  const auto cause =
      std::find_if(diagnostics_.begin(), diagnostics_.end(),
                   [&](const Diagnostic& each) { return each.order == finding.cause->order; });
  return cause != diagnostics_.end() &&
         isNoteOf(static_cast<std::size_t>(cause - diagnostics_.begin()), placed);
}

void Findings::keep(Diagnostic diagnostic, const SourceFile& file, Finding finding) {
  diagnostic.file = file.name;
  diagnostic.readAt = file.readAt;
  diagnostic.text = std::move(finding.text);
  diagnostic.remedy = std::move(finding.remedy.words);
  if (finding.covers == Scope::File) {
    files_.emplace(&file, diagnostics_.size());
  } else if (finding.covers != Scope::Nothing) {
    lines_.emplace(diagnostic.order, Cover{finding.covers, diagnostics_.size()});
  }
  diagnostics_.push_back(std::move(diagnostic));
}

void Findings::add(const SourceLine& line, Finding finding) {
  const SourceFile& file = *line.file;
  const Severity severity = severityOf(finding.rule.text().weight, file.isDedicated());
  const Rule rule = finding.rule;
  const Span place = finding.place;
  if (isRepeated(line, finding)) return;
  if (isCovered({finding, file, line.number, line.order, severity}) || !isKept(rule, severity)) {
    return;
  }
  std::optional<Repair> repair;
  if (finding.remedy.edit) {
    auto& [edited, text, isSafe] = *finding.remedy.edit;
    repair = Repair{.line = line.number,
                    .column = line.offset + edited.begin + 1,
                    .before = std::string(edited.of(line.text)),
                    .after = std::move(text),
                    .isSafe = isSafe};
  }
  keep({.rule = rule,
        .severity = severity,
        .line = line.number,
        .column = line.offset + place.begin + 1,
        .size = place.size,
        .repair = std::move(repair),
        .section = line.section ? *line.section : "",
        .source = line.text,
        .sourceColumn = line.offset + 1,
        .before = line.before,
        .order = line.order},
       file, std::move(finding));
}

void Findings::add(const SourceFile& file, std::uint64_t lines, Finding finding) {
  const Severity severity = severityOf(finding.rule.text().weight, false);
  const std::uint64_t order = lines + 1;
  const Rule rule = finding.rule;
  if (isCovered({finding, file, 0, order, severity}) || !isKept(rule, severity)) return;
  keep({.rule = rule, .severity = severity, .order = order}, file, std::move(finding));
}

std::vector<Omitted> Findings::omitted() const {
  std::vector<Omitted> omitted;
  for (const RuleText& text : allRules) {
    const Rule rule = *Rule::named(text.name);
    const std::size_t count = ruleCounts_[rule.index()];
    if (count > kept) omitted.push_back({rule, count - kept});
  }
  return omitted;
}

std::vector<Diagnostic> Findings::take() {
  std::stable_sort(diagnostics_.begin(), diagnostics_.end(), [](const auto& a, const auto& b) {
    return std::tie(a.order, a.column) < std::tie(b.order, b.column);
  });
  return std::exchange(diagnostics_, {});
}

}  // namespace check
