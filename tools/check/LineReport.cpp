#include "tools/check/LineReport.h"

#include <fmt/format.h>

#include <utility>

namespace check {

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
  const bool isError = weight == Weight::LineError || weight == Weight::Error;
  if (!misplaced_.empty() && !isError) return;
  Diagnostic diagnostic = at(place);
  diagnostic.rule = rule;
  diagnostic.severity = severityOf(weight, isDedicated());
  diagnostic.text = std::move(text);
  diagnostic.remedy = misplaced_.empty() ? std::move(remedy) : misplaced_;
  findings_.add(std::move(diagnostic));
}

bool LineReport::keepsMore(Rule rule) const {
  return findings_.keepsMore(severityOf(textOf(rule).weight, isDedicated()));
}

std::string LineReport::consequence() const {
  return isDedicated() ? "the module skips the line" : "the module refuses the file";
}

std::string LineReport::ownName() const {
  return isDedicated() ? fmt::format("{}:{}", file_.name, line_.number)
                       : fmt::format("line {}", line_.number);
}

std::string LineReport::nameOf(Spot spot) const {
  if (spot.file == file_.number) return fmt::format("line {}", spot.line);
  return fmt::format("{}:{}", fileNames_[spot.file], spot.line);
}

bool LineReport::isReadAgain(Spot spot) const {
  return spot.file != file_.number && spot.line == line_.number &&
         fileNames_[spot.file] == file_.name;
}

}  // namespace check
