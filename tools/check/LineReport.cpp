#include "tools/check/LineReport.h"

#include <fmt/format.h>

#include <utility>

namespace check {
namespace {

Severity severityOf(Weight weight, bool inDedicatedFile) {
  switch (weight) {
    case Weight::LineError:
      return inDedicatedFile ? Severity::Warning : Severity::Error;
    case Weight::Error:
      return Severity::Error;
    case Weight::Warning:
      return Severity::Warning;
    default:
      return Severity::Note;
  }
}

}  // namespace

Diagnostic LineReport::at(Span place) const {
  return {.file = file_.name,
          .line = line_.number,
          .column = line_.offset + place.begin + 1,
          .size = place.size,
          .section = section_,
          .readAt = file_.readAt,
          .source = std::string(line_.text),
          .sourceColumn = line_.offset + 1,
          .order = order_};
}

void LineReport::add(Rule rule, Span place, std::string text, std::string remedy) {
  const Weight weight = textOf(rule).weight;
  if (weight == Weight::LineError) ++file_.badLines;
  Diagnostic diagnostic = at(place);
  diagnostic.rule = rule;
  diagnostic.severity = severityOf(weight, isDedicated());
  diagnostic.text = std::move(text);
  diagnostic.remedy = std::move(remedy);
  findings_.add(std::move(diagnostic));
}

std::string LineReport::consequence() const {
  return isDedicated() ? "the module passes over the line" : "the module refuses the file";
}

std::string LineReport::ownName() const {
  return isDedicated() ? fmt::format("{}:{}", file_.name, line_.number)
                       : fmt::format("line {}", line_.number);
}

std::string LineReport::nameOf(Spot spot) const {
  if (spot.file == file_.number) return fmt::format("line {}", spot.line);
  return fmt::format("{}:{}", fileNames_[spot.file], spot.line);
}

}  // namespace check
